#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
// Not every fuzz target defines it.
extern "C" [[gnu::weak]] int LLVMFuzzerInitialize(int* argc, char*** argv);

/// Passes each file of a folder to a fuzz target, without a fuzzer. If a requirement fails, the program
/// aborts. The name that was printed last is the input.
int main(int argc, char** argv)
{
    if (argc != 2) return 2;
    if (LLVMFuzzerInitialize) LLVMFuzzerInitialize(&argc, &argv);
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
        std::fprintf(stderr, "%s\n", entry.path().filename().c_str());
        std::ifstream file(entry.path(), std::ios::binary);
        const std::string bytes{std::istreambuf_iterator<char>(file), {}};
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
        ++count;
    }
    return count > 0 ? 0 : 1;
}
