// Stands in for the closed library's log call: records every line.
#pragma once

#include <string>
#include <vector>

struct log_line {
    int priority;
    std::string tag;
    std::string text; // formatted
};

/** Lines logged since the last log_clear, oldest first. */
std::vector<log_line> log_lines();

/** The texts alone, each closed with '|': "a|b|". */
std::string log_texts();

/** Each with its priority: "6 a|4 b|". All must have the tag; a test fails otherwise. */
std::string log_of(const std::string& tag);

void log_clear();

/** Stops recording, for tests that log without end. */
void log_ignore();
