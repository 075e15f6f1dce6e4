// Replays every file of the corpus directories given on the command line
// through the fuzz target, for builds without libFuzzer.
#include <dirent.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv) {
    int replayed = 0;
    for (int i = 1; i < argc; ++i) {
        DIR *dir = opendir(argv[i]);
        if (dir == nullptr) {
            fprintf(stderr, "cannot open corpus %s\n", argv[i]);
            return 1;
        }
        while (struct dirent *entry = readdir(dir)) {
            std::string name = entry->d_name;
            if (name == "." || name == "..") continue;
            std::ifstream in(std::string(argv[i]) + "/" + name, std::ios::binary);
            std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                                       std::istreambuf_iterator<char>());
            LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
            ++replayed;
        }
        closedir(dir);
    }
    printf("replayed %d inputs\n", replayed);
    return replayed > 0 ? 0 : 1;
}
