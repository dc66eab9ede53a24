// Gives a target the inputs that are kept in the last argument's folder.
#include "tests/support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv) {
    int inputs = 0;
    for (const auto &item : fs::directory_iterator(argv[argc - 1])) {
        const std::string input = read_file(item.path());
        printf("%s\n", item.path().c_str());
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(input.data()), input.size());
        ++inputs;
    }
    return inputs > 0 ? 0 : 1;
}
