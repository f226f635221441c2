// Runs a target over every file of the folders named on the command line, without libFuzzer. Fails
// where there is no file: a lost corpus must not look like a passed test.

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size);

namespace {

void replay(const std::filesystem::path& path) {
    // The last name printed tells which input stopped the program.
    std::fprintf(stderr, "%s\n", path.filename().c_str());
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
    // Exactly as large as the input, so that a sanitizer sees who looks past its end.
    const std::unique_ptr<uint8_t[]> input(new uint8_t[bytes.size()]);
    std::copy(bytes.begin(), bytes.end(), input.get());
    LLVMFuzzerTestOneInput(input.get(), bytes.size());
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::filesystem::path> inputs;
    for (int i = 1; i < argc; ++i) {
        std::error_code missing;  // The same as empty.
        for (const auto& entry : std::filesystem::directory_iterator(argv[i], missing)) {
            inputs.push_back(entry.path());
        }
    }
    std::sort(inputs.begin(), inputs.end());
    for (const auto& input : inputs) {
        replay(input);
    }
    std::printf("ran %zu inputs\n", inputs.size());
    return inputs.empty() ? 1 : 0;
}
