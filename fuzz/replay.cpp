// Runs a target on files, where there is no libFuzzer: replay FILE...
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv) {
    LLVMFuzzerInitialize(&argc, &argv);
    for (int i = 1; i < argc; ++i) {
        std::ifstream file(argv[i], std::ios::binary);
        if (!file) {
            fprintf(stderr, "replay: can't read %s\n", argv[i]);
            return 1;
        }
        std::ostringstream text;
        text << file.rdbuf();
        const std::string input = text.str();
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(input.data()), input.size());
    }
    return 0;
}
