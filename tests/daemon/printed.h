// What a command prints, for the tests of files.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <iterator>
#include <set>
#include <sstream>
#include <string>

using names = std::set<std::string>;

/** Everything that a shell command writes to its standard output; it must succeed. */
static inline std::string printed_by(const std::string& command)
{
    std::string text;
    char part[4096];
    FILE* output = popen(command.c_str(), "r");
    for (size_t length; (length = fread(part, 1, sizeof part, output)) > 0;) {
        text.append(part, length);
    }
    EXPECT_EQ(pclose(output), 0) << command;
    return text;
}

/** The words that it writes. */
static inline names names_printed_by(const std::string& command)
{
    std::istringstream words(printed_by(command));
    return {std::istream_iterator<std::string>(words), {}};
}
