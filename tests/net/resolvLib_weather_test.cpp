// Look-ups with the C library's own resolver while memory and descriptors run out, in namespaces of
// their own: nobody can be asked there, so every query fails at once.
#include "fail.h"
#include "look_up.h"
#include "own_mounts.h"

#include <fstream>
#include <sys/resource.h>

// Another text each time, so that the C library reads it again. It has options, or a change of the
// file alone would do nothing.
static void change_configuration(int round)
{
    std::ofstream file("/etc/resolv.conf");
    file << "options attempts:1\nnameserver 127.0." << round + 1 << ".1\n";
    ASSERT_TRUE(file.flush());
}

static void find_nothing()
{
    static constexpr char NAME[] = "no.such.host";

    EXPECT_EQ(addresses(NAME), "");
    EXPECT_EQ(look_up(NAME, QUERY_NAPTR), "");
    EXPECT_EQ(osaGetIpFromName(const_cast<char*>(NAME)), INADDR_NONE);
}

TEST(LookUpWeather, WithoutDescriptorsOrMemoryInsideTheCLibraryNothingIsFound)
{
    char own_conf[] = "/tmp/resolvXXXXXX";
    close(mkstemp(own_conf));
    const bool isolated = own_mounts(CLONE_NEWNET) &&
                          mount(own_conf, "/etc/resolv.conf", nullptr, MS_BIND, nullptr) == 0;
    unlink(own_conf);
    if (!isolated) {
        GTEST_SKIP() << "no namespaces here, or no /etc/resolv.conf to put another over";
    }
    rlimit all;
    getrlimit(RLIMIT_NOFILE, &all);
    change_configuration(0);
    find_nothing();
    for (const rlim_t count : {0, 3, 4, 5}) {
        const rlimit few = {count, all.rlim_max};
        change_configuration(static_cast<int>(count) + 1);
        setrlimit(RLIMIT_NOFILE, &few);
        find_nothing();
        setrlimit(RLIMIT_NOFILE, &all);
    }
    for (const bool and_after : {false, true}) {
        bool hit = true;
        for (int n = 1; hit; n++) {
            change_configuration(n % 200 + (and_after ? 20 : 0));
            fail_malloc(n, and_after);
            find_nothing();
            hit = failed();
            fail_nothing();
            find_nothing();
        }
    }
}
