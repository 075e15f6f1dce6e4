// Product settings: ITEM=VALUE lines in ZEVA_SETTINGS_FILE, or memory only.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "zev0.h"

namespace {

std::mutex settingsLock;
std::map<int, std::string> &memorySettings() {
    static auto *items = new std::map<int, std::string>;
    return *items;
}

const char *settingsPath() {
    const char *path = getenv("ZEVA_SETTINGS_FILE");
    return (path != nullptr && path[0] != '\0') ? path : nullptr;
}

// Parses "ITEM=VALUE"; false for comments, blank and malformed lines.
bool parseLine(const std::string &line, int *item, std::string *value) {
    size_t start = line.find_first_not_of(" \t");
    if (start == std::string::npos || line[start] == '#') return false;
    size_t eq = line.find('=', start);
    if (eq == std::string::npos) return false;
    std::string key = line.substr(start, eq - start);
    while (!key.empty() && (key.back() == ' ' || key.back() == '\t')) key.pop_back();
    if (key.empty() || key.size() > 9 || key.find_first_not_of("0123456789") != std::string::npos)
        return false;
    *item = atoi(key.c_str());
    *value = line.substr(eq + 1);
    if (!value->empty() && value->back() == '\r') value->pop_back();
    return true;
}

bool readFile(const char *path, std::vector<std::string> *lines) {
    std::ifstream in(path);
    if (!in) return errno == ENOENT;  // a file not yet written holds no items
    std::string line;
    while (std::getline(in, line)) lines->push_back(line);
    return true;
}

}  // namespace

extern "C" {

char *ZEV0_QueryProductSpec(int item) {
    static thread_local std::map<int, std::string> answers;
    std::lock_guard<std::mutex> guard(settingsLock);
    bool found = false;
    std::string value;
    if (const char *path = settingsPath()) {
        std::vector<std::string> lines;
        readFile(path, &lines);
        for (const auto &line : lines) {
            int key;
            std::string text;
            if (parseLine(line, &key, &text) && key == item) {
                found = true;  // the last line of an item wins
                value = text;
            }
        }
    } else {
        auto it = memorySettings().find(item);
        if (it != memorySettings().end()) {
            found = true;
            value = it->second;
        }
    }
    if (!found) {
        if (item != 3) return nullptr;
        value = "zevd";
    }
    std::string &slot = answers[item];
    slot = value;
    return slot.data();
}

int ZEV0_UpdateProductSpec(int item, const char *value) {
    if (value == nullptr || item < 0 || strchr(value, '\n') != nullptr) return 0;
    std::lock_guard<std::mutex> guard(settingsLock);
    const char *path = settingsPath();
    if (path == nullptr) {
        memorySettings()[item] = value;
        return 1;
    }
    std::vector<std::string> lines;
    if (!readFile(path, &lines)) return 0;
    std::ostringstream out;
    bool replaced = false;
    for (const auto &line : lines) {
        int key;
        std::string text;
        if (parseLine(line, &key, &text) && key == item) {
            if (replaced) continue;  // one line per item after an update
            out << item << '=' << value << '\n';
            replaced = true;
        } else {
            out << line << '\n';
        }
    }
    if (!replaced) out << item << '=' << value << '\n';
    // Atomic: a reader sees the old file or the new one, never a half.
    std::string temp = std::string(path) + ".tmp." + std::to_string(getpid());
    FILE *file = fopen(temp.c_str(), "w");
    if (file == nullptr) return 0;
    std::string text = out.str();
    bool ok = true;
    // The new file takes the old one's permissions, so a private file stays private.
    struct stat old;
    if (stat(path, &old) == 0) ok = fchmod(fileno(file), old.st_mode & 07777) == 0;
    ok = (fwrite(text.data(), 1, text.size(), file) == text.size()) && ok;
    ok = (fflush(file) == 0) && ok;
    ok = (fsync(fileno(file)) == 0) && ok;
    ok = (fclose(file) == 0) && ok;
    if (!ok || rename(temp.c_str(), path) != 0) {
        unlink(temp.c_str());
        return 0;
    }
    return 1;
}

}  // extern "C"
