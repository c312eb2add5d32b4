// Runs a fuzz target over stored inputs, without a fuzzer.
//
// usage: replay_<target> <directory>...
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

namespace fs = std::filesystem;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

static void replay(const fs::path& path)
{
    std::ifstream file(path, std::ios::binary);
    const std::string bytes(std::istreambuf_iterator<char>(file), {});
    const std::unique_ptr<uint8_t[]> copy(new uint8_t[bytes.size()]); // of the exact size

    memcpy(copy.get(), bytes.data(), bytes.size());
    fprintf(stderr, "%s\n", path.c_str());
    LLVMFuzzerTestOneInput(copy.get(), bytes.size());
}

int main(int argc, char** argv)
{
    int count = 0;

    for (int i = 1; i < argc; i++) {
        std::error_code error;
        for (const auto& entry : fs::directory_iterator(argv[i], error)) {
            replay(entry.path());
            count++;
        }
    }
    printf("%d inputs\n", count);
    return count > 0 ? 0 : 1;
}
