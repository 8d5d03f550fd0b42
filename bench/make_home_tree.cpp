// A home-like tree for the on-demand scan benchmark: COUNT files in nested
// folders, mostly small, some up to 10 MB, text and binary, every file's
// contents its own (so the engine's own cache of clean files never helps),
// all from a fixed seed, so every run builds the same tree. Every 100th
// file is a folder of text files for `tar czf` to turn into an archive
// (the script does that); their names are printed, one a line.
//
//   make_home_tree FOLDER [COUNT] [SEED]     (default: 20000 files, seed 26)

#include <sys/stat.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

namespace {

const char* const kWords[] = {"invoice", "report", "the",   "agent",  "scan",  "folder", "photo",  "holiday",
                              "draft",   "notes",  "budget", "meeting", "code",  "build",  "release", "backup",
                              "letter",  "march",  "total",  "project", "list",  "music",  "video",  "plan"};
const char* const kTops[] = {"Documents", "Downloads", "Pictures", "Music", "Projects", ".cache", ".config", "Desktop"};
const char* const kKinds[] = {".txt", ".md", ".c", ".json", ".jpg", ".pdf", ".bin", ".odt"};

// Sizes as in a home folder: most files small, a fifth up to 1 MB, one in a
// hundred up to 10 MB, spread evenly on a log scale within each band.
size_t pickSize(std::mt19937_64& random)
{
    std::uniform_real_distribution<double> band(0, 1);
    const double which = band(random);
    const auto logUniform = [&](double low, double high) {
        return static_cast<size_t>(std::exp(std::uniform_real_distribution<double>(std::log(low), std::log(high))(random)));
    };
    if (which < 0.80)
        return logUniform(100, 64 * 1024);
    if (which < 0.99)
        return logUniform(64 * 1024, 1024 * 1024);
    return logUniform(1024 * 1024, 10 * 1024 * 1024);
}

std::string contents(std::mt19937_64& random, size_t size, bool text, const std::string& name)
{
    std::string data = name + "\n";
    data.reserve(size);
    if (text) {
        while (data.size() < size) {
            data += kWords[random() % std::size(kWords)];
            data += random() % 12 == 0 ? '\n' : ' ';
        }
    } else {
        while (data.size() + 8 <= size) {
            const std::uint64_t word = random();
            data.append(reinterpret_cast<const char*>(&word), 8);
        }
    }
    data.resize(size);
    return data;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: make_home_tree FOLDER [COUNT] [SEED]\n");
        return 2;
    }
    const std::string root = argv[1];
    const int count = argc > 2 ? std::atoi(argv[2]) : 20000;
    std::mt19937_64 random(argc > 3 ? std::strtoull(argv[3], nullptr, 10) : 26);
    std::vector<std::string> folders{root};
    for (int i = 0; i < count; ++i) {
        // A new folder now and then, below one made before: trees of a
        // few levels, as homes have.
        if (i % 25 == 0) {
            const std::string parent = i % 200 == 0 ? root + "/" + kTops[random() % std::size(kTops)]
                                                    : folders[random() % folders.size()];
            folders.push_back(parent + "/" + kWords[random() % std::size(kWords)] + std::to_string(i / 25));
            std::filesystem::create_directories(folders.back());
        }
        const std::string& folder = folders[random() % folders.size()];
        if (i % 100 == 99) {
            // An archive to be: ten text files in a folder of their own.
            const std::string pack = folder + "/archive" + std::to_string(i);
            std::filesystem::create_directories(pack);
            for (int j = 0; j < 10; ++j) {
                const std::string name = pack + "/part" + std::to_string(j) + ".txt";
                std::FILE* file = std::fopen(name.c_str(), "wb");
                const std::string data = contents(random, 2000 + random() % 30000, true, name);
                std::fwrite(data.data(), 1, data.size(), file);
                std::fclose(file);
            }
            std::printf("%s\n", pack.c_str());
            continue;
        }
        const std::string kind = kKinds[random() % std::size(kKinds)];
        const bool text = kind == ".txt" || kind == ".md" || kind == ".c" || kind == ".json";
        const std::string name = folder + "/" + kWords[random() % std::size(kWords)] + std::to_string(i) + kind;
        const std::string data = contents(random, pickSize(random), text, name);
        std::FILE* file = std::fopen(name.c_str(), "wb");
        if (!file || std::fwrite(data.data(), 1, data.size(), file) != data.size()) {
            std::perror(name.c_str());
            return 1;
        }
        std::fclose(file);
    }
    return 0;
}
