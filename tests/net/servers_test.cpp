// The resolver and the SNTP client against servers as they are: an authoritative name server with a
// zone of ours and a time server, in network and mount namespaces of the test's own. Nothing leaves
// the machine, and nothing outside sees the test.
//
// The program runs itself again inside the namespaces. Where it cannot, it says why and ends with
// 77, which ctest takes for skipped. The servers come from scripts/servers, or are installed.
#include "osaResolv.h"
#include "sntp.h"
#include "task_probe.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <net/if.h>
#include <netdb.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;
using std::string;

static constexpr int SKIPPED = 77;
static constexpr char INSIDE[] = "--inside";

static const char ZONE[] = R"($ORIGIN hnetd.test.
$TTL 300
@        SOA   ns admin 1 3600 600 86400 60
@        NS    ns.elsewhere.test.
ns       A     127.0.0.1
two      600 A 192.0.2.1
two      600 A 192.0.2.2
two      700 AAAA 2001:db8::2
six      AAAA  2001:db8::6
alias    CNAME hop
hop      CNAME two
text     TXT   "no address"
sip1     A     192.0.2.11
sip1     AAAA  2001:db8::11
sip2     A     192.0.2.12
_sip._udp SRV  20 0 5062 sip2
_sip._udp SRV  10 5 5061 nowhere
_sip._udp SRV  10 9 5060 sip1
_sip._tcp SRV  1  1 5070 sip2
@        NAPTR 20 1 "s" "SIP+D2U" "" _sip._udp
@        NAPTR 10 1 "S" "sip+d2t" "" _sip._tcp
mixed    NAPTR 1 1 "u" "E2U+sip" "!^.*$!sip:info@hnetd.test!" .
mixed    NAPTR 2 1 "s" "SIP+D2T" "" _sip._tcp
clock    A     192.0.2.99
clock    A     127.0.0.1
clock6   AAAA  ::1
)";

// Paths are relative to the servers' working directory. Answers are not rationed.
static const char NSD_CONF[] = R"(server:
  ip-address: 127.0.0.1
  username: ""
  zonesdir: ""
  database: ""
  pidfile: ""
  zonelistfile: zones
  xfrdfile: transfers
  rrl-ratelimit: 0
remote-control:
  control-enable: no
zone:
  name: hnetd.test
  zonefile: zone
)";

static const char CHRONY_CONF[] = R"(local stratum 1
allow all
cmdport 0
pidfile chrony.pid
)";

// ---- Outside ----

static fs::path server(const char* name)
{
    const char* unpacked = getenv("HNETD_SERVERS");
    const fs::path path = fs::path(unpacked != nullptr ? unpacked : "") / "usr/sbin" / name;
    std::error_code error;
    return fs::exists(path, error) ? path : fs::path("/usr/sbin") / name;
}

static int run(std::vector<const char*> command)
{
    command.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        execvp(command[0], const_cast<char**>(command.data()));
        _exit(127);
    }
    int status = -1;
    waitpid(pid, &status, 0);
    return status;
}

static int skip(const string& reason)
{
    printf("skipped: %s\n", reason.c_str());
    return SKIPPED;
}

static int run_inside(char** argv)
{
    for (const char* name : {"nsd", "chronyd"}) {
        if (access(server(name).c_str(), X_OK) != 0) {
            return skip(string(name) + " is not here; scripts/servers fetches it");
        }
    }
    if (access("/etc/resolv.conf", F_OK) != 0 || access("/etc/nsswitch.conf", F_OK) != 0) {
        return skip("no /etc/resolv.conf and /etc/nsswitch.conf to put others over");
    }
    std::vector<const char*> command = {"unshare", "--net", "--mount"};
    if (getuid() != 0) {
        command.push_back("--map-root-user");
    }
    std::vector<const char*> trial = command;
    trial.push_back("true");
    if (run(trial) != 0) {
        return skip("this system does not allow network and mount namespaces");
    }
    command.push_back(argv[0]);
    command.push_back(INSIDE);
    for (char** word = argv + 1; *word != nullptr; word++) {
        command.push_back(*word);
    }
    command.push_back(nullptr);
    execvp(command[0], const_cast<char**>(command.data()));
    perror("unshare");
    return EXIT_FAILURE;
}

// ---- Inside ----

static void write_file(const fs::path& path, const string& text)
{
    std::ofstream(path) << text;
}

static string read_file(const fs::path& path)
{
    std::ifstream file(path);
    return string(std::istreambuf_iterator<char>(file), {});
}

static void raise_loopback()
{
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    ifreq request = {};
    strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP;
    ASSERT_EQ(ioctl(fd, SIOCSIFFLAGS, &request), 0) << strerror(errno);
    close(fd);
}

// Whether a port has somebody behind it: nobody there refuses what it is sent.
static bool listens(uint16_t port)
{
    sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    const bool refused = send(fd, "?", 1, 0) == -1 || send(fd, "?", 1, 0) == -1;
    close(fd);
    return !refused;
}

class Servers : public testing::Environment {
  public:
    void SetUp() override
    {
        char name[] = "/tmp/hnetd-servers-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        dir = name;
        prctl(PR_SET_CHILD_SUBREAPER, 1); // for the children of the servers
        raise_loopback();
        put_over("/etc/resolv.conf", "nameserver 127.0.0.1\nsearch hnetd.test\n"
                                     "options timeout:1 attempts:1\n");
        put_over("/etc/nsswitch.conf", "hosts: files dns\n");
        string zone = ZONE;
        for (int n = 1; n <= 60; n++) {
            zone += "many A 198.51.100." + std::to_string(n) + "\n";
        }
        write_file(dir / "zone", zone);
        write_file(dir / "nsd.conf", NSD_CONF);
        write_file(dir / "chrony.conf", CHRONY_CONF);
        name_server = start({"nsd", "-d", "-c", "nsd.conf"});
        time_server =
            start({"chronyd", "-d", "-x", "-u", "root", "-f", (dir / "chrony.conf").string()});
        ASSERT_TRUE(eventually([] {
            return listens(53) && listens(123) && osaGetIpFromName(known_host) != 0xffffffffU;
        })) << read_file(dir / "nsd.log")
            << read_file(dir / "chronyd.log");
    }

    void TearDown() override
    {
        for (const pid_t pid : {name_server, time_server}) {
            if (pid > 0) {
                kill(-pid, SIGKILL);
                while (waitpid(-pid, nullptr, 0) > 0) {
                }
            }
        }
        std::error_code error;
        fs::remove_all(dir, error);
    }

    static inline char known_host[] = "ns.hnetd.test";
    static inline pid_t name_server = 0;
    static inline pid_t time_server = 0;

  private:
    void put_over(const char* path, const string& text)
    {
        const fs::path ours = dir / fs::path(path).filename();
        write_file(ours, text);
        ASSERT_EQ(mount(ours.c_str(), path, nullptr, MS_BIND, nullptr), 0) << strerror(errno);
    }

    // The server leads a process group, which ends with this program.
    pid_t start(const std::vector<string>& command)
    {
        const fs::path program = server(command[0].c_str());
        const fs::path root = program.parent_path().parent_path().parent_path();
        string libraries;
        for (const char* where : {"usr/lib", "lib"}) {
            std::error_code error;
            for (const auto& entry : fs::directory_iterator(root / where, error)) {
                if (root != "/" && entry.path().string().ends_with("-linux-gnu")) {
                    libraries += entry.path().string() + ":";
                }
            }
        }
        const pid_t pid = fork();
        if (pid == 0) {
            setpgid(0, 0);
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (chdir(dir.c_str()) != 0 ||
                freopen((command[0] + ".log").c_str(), "w", stderr) == nullptr) {
                _exit(127);
            }
            dup2(STDERR_FILENO, STDOUT_FILENO);
            if (!libraries.empty()) {
                setenv("LD_LIBRARY_PATH", libraries.c_str(), 1);
            }
            std::vector<char*> words;
            for (const string& word : command) {
                words.push_back(const_cast<char*>(word.c_str()));
            }
            words.push_back(nullptr);
            execv(program.c_str(), words.data());
            _exit(127);
        }
        setpgid(pid, pid); // whoever comes first
        return pid;
    }

    fs::path dir;
};

static string look_up(const char* name, queryType_e type, serviceName_e service = SERV_NONE)
{
    const char* const protos[] = {"", "tcp ", "udp "};
    ulist_t* list = osaGetHostByName(name, type, service);
    string all;
    for (int32_t pos = 0; uListEol(list, pos) == 0; pos++) {
        auto* host = reinterpret_cast<hostInfo_t*>(uListGet(list, pos));
        char text[INET6_ADDRSTRLEN] = "?";
        sockIpAddrNtop(&host->ipAddr, text, sizeof text);
        all += protos[host->type] + string(text) + ":" + std::to_string(host->port) + "/" +
               std::to_string(host->ttl) + " ";
    }
    osaFreeHostInfoList(list);
    return all;
}

TEST(NameServerTest, Addresses)
{
    const string two = "192.0.2.1:0/600 192.0.2.2:0/600 2001:db8::2:0/700 ";
    EXPECT_EQ(look_up("two.hnetd.test", QUERY_ADDRESS), two);
    EXPECT_EQ(look_up("two", QUERY_ADDRESS), two); // found by the search list
    EXPECT_EQ(look_up("alias.hnetd.test", QUERY_ADDRESS), two);
    EXPECT_EQ(look_up("six.hnetd.test", QUERY_ADDRESS), "2001:db8::6:0/300 ");
    EXPECT_EQ(look_up("text.hnetd.test", QUERY_ADDRESS), "");
    EXPECT_EQ(look_up("nobody.hnetd.test", QUERY_ADDRESS), "");
    EXPECT_EQ(look_up("not..a.name", QUERY_ADDRESS), "");
}

// 60 addresses take a second try over TCP and more room than the buffer has.
TEST(NameServerTest, AnswersLongerThanTheBuffer)
{
    const string some = look_up("many.hnetd.test", QUERY_ADDRESS);
    const auto count = std::count(some.begin(), some.end(), ' ');
    EXPECT_GT(count, 25);
    EXPECT_LE(count, 31); // of 16 bytes each
    EXPECT_EQ(some.find("198.51.100."), 0U);
}

TEST(NameServerTest, Services)
{
    const string udp = "udp 192.0.2.11:5060/300 udp 192.0.2.12:5062/300 "
                       "udp 2001:db8::11:5060/300 ";
    const string tcp = "tcp 192.0.2.12:5070/300 ";
    EXPECT_EQ(look_up("_sip._udp.hnetd.test", QUERY_SRV), udp);
    EXPECT_EQ(look_up("_sip._tcp.hnetd.test", QUERY_SRV), tcp);
    EXPECT_EQ(look_up("two.hnetd.test", QUERY_SRV), "");
    EXPECT_EQ(look_up("hnetd.test", QUERY_NAPTR, SERV_SIP), tcp + udp);
    const string mixed = look_up("mixed.hnetd.test", QUERY_NAPTR, SERV_SIP);
    EXPECT_TRUE(mixed.empty() || mixed == tcp); // whichever record the server put first
}

TEST(NameServerTest, GetHostByName)
{
    char name[] = "two.hnetd.test";
    const uint32_t addr = ntohl(osaGetIpFromName(name));
    EXPECT_TRUE(addr == 0xc0000201 || addr == 0xc0000202) << addr;
    char nobody[] = "nobody.hnetd.test";
    EXPECT_EQ(osaGetIpFromName(nobody), 0xffffffffU);
}

TEST(NameServerTest, FourThreads)
{
    std::vector<std::thread> threads;
    for (int n = 0; n < 4; n++) {
        threads.emplace_back([] {
            for (int i = 0; i < 25; i++) {
                EXPECT_EQ(look_up("sip1.hnetd.test", QUERY_ADDRESS),
                          "192.0.2.11:0/300 2001:db8::11:0/300 ");
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

static double seconds(const timespec& t)
{
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

// The server gives this machine's own time, which it never sets.
TEST(TimeServerTest, TheTimeOfThisMachine)
{
    for (const char* name : {"127.0.0.1", "::1", "clock.hnetd.test", "clock6.hnetd.test"}) {
        timespec before;
        timespec now = {};
        timespec after;
        clock_gettime(CLOCK_REALTIME, &before);
        EXPECT_EQ(osaGetTimeFromSntpServer(name, 0, &now), OK) << name;
        clock_gettime(CLOCK_REALTIME, &after);
        EXPECT_GT(seconds(now), seconds(before) - 0.01) << name;
        EXPECT_LT(seconds(now), seconds(after) + 0.01) << name;
    }
    timespec now;
    EXPECT_EQ(osaGetTimeFromSntpServer("nobody.hnetd.test", 0, &now), ERROR);
    EXPECT_EQ(osaGetTimeFromSntpServer("192.0.2.99", 0, &now), ERROR); // no way there
}

// Last: the name server falls silent. With the dot at the end a name is asked for once.
TEST(SilenceTest, ATaskDeletedInAQueryEndsAfterIt)
{
    probe p;
    kill(-Servers::name_server, SIGSTOP);
    const taskId_t id = spawn([&] {
        probe_attach(&p);
        (void)look_up("_sip._udp.hnetd.test.", QUERY_SRV);
        (void)look_up("two.hnetd.test.", QUERY_ADDRESS);
        ADD_FAILURE() << "not ended";
    });
    EXPECT_TRUE(eventually([&] { return p.running.load(); }));
    usleep(50000);
    EXPECT_EQ(taskDelete(id), OK);
    EXPECT_TRUE(eventually([&] { return p.ended.load(); }));

    EXPECT_EQ(look_up("two.hnetd.test.", QUERY_ADDRESS), "");
    kill(-Servers::name_server, SIGCONT);
    EXPECT_TRUE(eventually([] { return !look_up("two.hnetd.test.", QUERY_ADDRESS).empty(); }));
}

int main(int argc, char** argv)
{
    if (argc < 2 || string(argv[1]) != INSIDE) {
        return run_inside(argv);
    }
    testing::InitGoogleTest(&argc, argv);
    testing::AddGlobalTestEnvironment(new Servers);
    return RUN_ALL_TESTS();
}
