// Replaces libFuzzer where it isn't linked: runs the target once per file of the command line.
#include <cstdint>
#include <cstdio>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
    for (int n = 1; n < argc; ++n) {
        FILE* file = fopen(argv[n], "rb");
        std::vector<uint8_t> input(1 << 20);
        if (!file) {
            perror(argv[n]);
            return 1;
        }
        input.resize(fread(input.data(), 1, input.size(), file));
        fclose(file);
        input.shrink_to_fit();  // A sanitizer then knows the input's end.
        LLVMFuzzerTestOneInput(input.data(), input.size());
    }
    printf("%d inputs\n", argc - 1);
    return argc > 1 ? 0 : 1;  // A missing corpus is a failure.
}
