// zevdctl run as a child program by its suites: one command to its end
// (bounded), its JSON lines read back with the same JSON library, and the
// check that a table holds no raw control byte.
#ifndef ZEVD_TESTS_SUPPORT_ZEVDCTL_RUN_H
#define ZEVD_TESTS_SUPPORT_ZEVDCTL_RUN_H

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/child_program.h"

namespace zevd::test {

struct ZevdctlResult {
    int code;  // the exit code, -1 when it did not exit within the limit
    std::string out;
    std::string err;
};

// Runs zevdctl with args (and env entries NAME=VALUE added) to its end,
// waiting at most limit.
inline ZevdctlResult runZevdctl(std::vector<std::string> args,
                                const std::vector<std::string> &env = {},
                                std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    args.insert(args.begin(), ZEVDCTL_PATH);
    ChildProgram program(args, env);
    EXPECT_TRUE(program.started());
    int status = program.wait(limit);
    return {exitCode(status), program.output(), program.errors()};
}

// Each line of text parsed as one JSON object, in order; false, with
// *problem naming the line, when one does not parse or is not an object.
inline bool jsonLines(const std::string &text, std::vector<nlohmann::json> *objects,
                      std::string *problem) {
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(start, end - start);
        start = end + 1;
        nlohmann::json value = nlohmann::json::parse(line, nullptr, false);
        if (value.is_discarded() || !value.is_object()) {
            *problem = "not a JSON object: " + line;
            return false;
        }
        if (objects != nullptr) objects->push_back(std::move(value));
    }
    return true;
}

inline bool jsonLines(const std::string &text, std::string *problem) {
    return jsonLines(text, nullptr, problem);
}

// The first raw control byte of text (below 0x20 but the line ends, or
// 0x7f) as "byte 0xHH at N", or empty when there is none.
inline std::string rawControlByte(const std::string &text) {
    for (size_t i = 0; i < text.size(); ++i) {
        auto c = static_cast<unsigned char>(text[i]);
        if ((c < 0x20 && c != '\n') || c == 0x7f) {
            char byte[8];
            snprintf(byte, sizeof byte, "0x%02x", c);
            return std::string("byte ") + byte + " at " + std::to_string(i);
        }
    }
    return {};
}

}  // namespace zevd::test

#endif  // ZEVD_TESTS_SUPPORT_ZEVDCTL_RUN_H
