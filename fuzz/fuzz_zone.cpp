// Time zones as text. A zone that is taken goes to the environment and, in single quotes, to the
// shell; neither is there. One that could be more than a word to the shell, an option to echo or
// the path of a file to the C library must not get as far.
#include "fuzz.h"
#include "osaTask.h"

static constexpr char ALLOWED[] = "abcdefghijklmnopqrstuvwxyz"
                                  "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789+-_/:,.<>";
static constexpr std::string_view BEFORE = "echo '";
static constexpr std::string_view BEHIND = "' > /etc/TZ;source /etc/profile";

static std::string_view zone;
static int sets;
static int shells;

extern "C" int __wrap_setenv(const char* name, const char* value, int overwrite)
{
    expect(strcmp(name, "TZ") == 0 && value == zone && overwrite != 0);
    sets++;
    return 0;
}

extern "C" int __wrap_system(const char* text)
{
    std::string_view command = text;

    expect(command.starts_with(BEFORE) && command.ends_with(BEHIND));
    command.remove_prefix(BEFORE.size());
    command.remove_suffix(BEHIND.size());
    expect(command == zone && sets == 1);
    shells++;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const fuzz_text text(data, size);

    zone = {text.bytes, text.length};
    sets = 0;
    shells = 0;
    const std::string_view name = zone.substr(std::min(zone.find_first_not_of(':'), zone.size()));
    const bool good = !zone.empty() && zone.size() <= 92 && zone[0] != '-' &&
                      zone.find_first_not_of(ALLOWED) == zone.npos && !name.starts_with('/') &&
                      zone.find("..") == zone.npos;
    expect(osaUpdateTimeZone(text.bytes) == (good ? OK : ERROR));
    expect(sets == (good ? 1 : 0) && shells == sets);
    return 0;
}
