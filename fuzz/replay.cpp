// Runs a target on files, where there is no libFuzzer: replay FILE...
#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv) {
    LLVMFuzzerInitialize(&argc, &argv);
    for (int i = 1; i < argc; ++i) {
        std::ostringstream text;
        text << std::ifstream(argv[i], std::ios::binary).rdbuf();
        const std::string input = text.str();
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(input.data()), input.size());
    }
    return 0;
}
