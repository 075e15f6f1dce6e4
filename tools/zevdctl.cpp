// zevdctl: a DCH seen from a shell, on the public C API only.
//
// Exit status: 0 done, 1 a request failed, 2 bad usage. Every failure
// writes one line on standard error; standard output carries only the
// command's own output (a table, or JSON lines with --json).
#include <getopt.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "zevd610.h"
#include "zevdctl_format.h"

namespace zevdctl {
namespace {

constexpr int kOk = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;

struct Options {
    bool json = false;
    int timeout = 0;  // 0: the DCH time-out's own default
};

using Arguments = std::vector<std::string>;
using Command = int (*)(const Options &, const Arguments &);

int apps(const Options &, const Arguments &);
int attrs(const Options &, const Arguments &);
int help(const Options &, const Arguments &);
int watch(const Options &, const Arguments &);
int status(const Options &, const Arguments &);
int send(const Options &, const Arguments &);
int action(const Options &, const Arguments &);

// The commands: --help is made from this table.
struct CommandEntry {
    const char *name;
    const char *arguments;
    size_t least, most;  // argument counts
    const char *summary;
    const char *example;
    Command run;
};

const CommandEntry kCommands[] = {
    {"apps", "[APPL]", 0, 1, "the registered applications (or whether APPL is one)", "zevdctl apps",
     apps},
    {"attrs", "APPL", 1, 1, "the attributes of APPL: group, attribute, type, size",
     "zevdctl attrs demo", attrs},
    {"help", "APPL", 1, 1, "the help texts of APPL, its groups and its attributes",
     "zevdctl help demo", help},
    {"watch", "APPL GROUP", 2, 2, "rows of GROUP as they arrive, until Ctrl-C",
     "zevdctl watch demo disk", watch},
    {"status", "", 0, 0,
     "provider status lines as they come (the wait cannot be interrupted: Ctrl-C kills it)",
     "zevdctl status --json", status},
    {"send", "APPL GROUP SOURCE NAME=TYPE:VALUE...", 4, 1000,
     "online, one row, offline; prints the handle and each status",
     "zevdctl send demo disk node-9 mount=D:/srv usedPct=A:55", send},
    {"action", "ID NODE NAME [PARAMETERS]", 3, 4,
     "hand action NAME (number ID) to NODE, wait for its result",
     "zevdctl action 7 node-1 restart --timeout 10", action},
};

const char kVersion[] = ZEVD_VERSION;

void printHelp() {
    printf("usage: zevdctl [OPTIONS] COMMAND [ARGUMENTS]\n\n");
    printf("Looks at a DCH from a shell: what is registered, what providers send, who comes\n");
    printf("and goes. Options may stand before or after the command.\n\nCommands:\n");
    for (const CommandEntry &c : kCommands)
        printf("  %s%s%s\n      %s\n      e.g. %s\n", c.name, *c.arguments ? " " : "", c.arguments,
               c.summary, c.example);
    printf(
        "\nOptions:\n"
        "  --addr HOST     the DCH's host (default: ZEVA_DCH_ADDR, else this host)\n"
        "  --port N        the DCH's port (default: ZEVA_DCH_PORT, else 1919)\n"
        "  --timeout S     seconds to wait for an answer (default: ZEVA_DCH_TIMEOUT, else 30)\n"
        "  --json          one JSON object per line instead of a table\n"
        "  --help          this text\n"
        "  --version       the version\n"
        "\nTYPE in NAME=TYPE:VALUE is the attribute's type letter: A C G L N take a 32-bit\n"
        "integer, I S a 16-bit integer, any other letter a text.\n"
        "\nThe library's trace goes to standard error, at the levels of ZEVA_TRACE (none\n"
        "when it is not set).\n"
        "\nExit status: 0 done, 1 a request failed, 2 bad usage.\n");
}

int usage(const std::string &what) {
    fprintf(stderr, "zevdctl: %s\nTry 'zevdctl --help'.\n", what.c_str());
    return kUsage;
}

int failed(const std::string &what) {
    fprintf(stderr, "zevdctl: %s\n", what.c_str());
    return kFailed;
}

// Seconds a catalogue query waits.
int queryWait(const Options &options) {
    if (options.timeout > 0) return options.timeout;
    const char *configured = getenv("ZEVA_DCH_TIMEOUT");
    int value = configured != nullptr ? atoi(configured) : 0;
    return value > 0 ? value : 30;
}

std::string dchName() {
    const char *addr = getenv("ZEVA_DCH_ADDR");
    const char *port = getenv("ZEVA_DCH_PORT");
    return std::string(addr != nullptr ? addr : "this host") + " port " +
           (port != nullptr ? port : "1919");
}

// One catalogue query; false with a line on standard error.
using Query = int (*)(int *, char **, const char *, int);
bool ask(Query query, const Options &options, const char *appl, std::string &text) {
    int length = 0;
    char *answer = nullptr;
    int result = query(&length, &answer, appl, queryWait(options));
    if (result != 0 || answer == nullptr) {
        free(answer);
        return false;
    }
    text.assign(answer, static_cast<size_t>(length));
    free(answer);
    return true;
}

void writeJson(const std::vector<std::string> &keys, const std::vector<std::string> &values,
               const std::vector<bool> &numeric) {
    std::string line = "{";
    for (size_t i = 0; i < keys.size(); ++i) {
        if (i > 0) line += ",";
        line += jsonString(keys[i]) + ":" + (numeric[i] ? values[i] : jsonString(values[i]));
    }
    printf("%s}\n", line.c_str());
}

// Prints a catalogue text as a table or as JSON lines.
void printCatalogue(const Options &options, const std::vector<std::string> &header,
                    const std::vector<std::string> &keys, const std::vector<bool> &numeric,
                    const std::string &text) {
    std::vector<std::vector<std::string>> rows = splitLines(text, header.size());
    if (options.json) {
        for (const auto &row : rows) writeJson(keys, row, numeric);
    } else {
        fputs(table(header, rows).c_str(), stdout);
    }
}

int apps(const Options &options, const Arguments &args) {
    const char *appl = args.empty() ? nullptr : args[0].c_str();
    std::string text;
    if (!ask(dc_getApplications, options, appl, text))
        return failed(appl != nullptr
                          ? "no application " + args[0] + " at the DCH (" + dchName() +
                                "), or no answer"
                          : "no applications at the DCH (" + dchName() + "), or no answer");
    printCatalogue(options, {"APPLICATION"}, {"application"}, {false}, text);
    return kOk;
}

int attrs(const Options &options, const Arguments &args) {
    std::string text;
    if (!ask(dc_getApplAttributes, options, args[0].c_str(), text))
        return failed("no application " + args[0] + " at the DCH (" + dchName() +
                      "), or no answer");
    printCatalogue(options, {"GROUP", "ATTRIBUTE", "TYPE", "SIZE"},
                   {"group", "attribute", "type", "size"}, {false, false, false, true}, text);
    return kOk;
}

int help(const Options &options, const Arguments &args) {
    std::string text;
    if (!ask(dc_getApplHelp, options, args[0].c_str(), text))
        return failed("no application " + args[0] + " at the DCH (" + dchName() +
                      "), or no answer");
    printCatalogue(options, {"GROUP", "ATTRIBUTE", "HELP"}, {"group", "attribute", "help"},
                   {false, false, false}, text);
    return kOk;
}

// ---------------------------------------------------------------------------
// watch
// ---------------------------------------------------------------------------

void *dataClient = nullptr;

// Takes Ctrl-C and SIGTERM and wakes the data wait; a signal handler could
// not (the cancel takes a lock).
void *cancelOnSignal(void *signals) {
    int received = 0;
    sigwait(static_cast<sigset_t *>(signals), &received);
    dc_waitOnDataCancel(dataClient);
    return nullptr;
}

// How a value is shown when the catalogue does not know its attribute: text
// when it reads as text, a number when it has 2 or 4 bytes, else hex.
std::string guessValue(const std::string &bytes) {
    size_t end = strnlen(bytes.data(), bytes.size());
    bool text = end > 0 && end < bytes.size();
    for (size_t i = 0; text && i < end; ++i)
        text = static_cast<unsigned char>(bytes[i]) >= 0x20 &&
               static_cast<unsigned char>(bytes[i]) < 0x7f;
    if (text) return bytes.substr(0, end);
    if (bytes.size() == 2 || bytes.size() == 4) return decodeValue(bytes, 'A');
    std::string hex;
    char byte[4];
    for (unsigned char c : bytes) {
        snprintf(byte, sizeof byte, "%02x", c);
        hex += byte;
    }
    return hex;
}

int watch(const Options &options, const Arguments &args) {
    const std::string &appl = args[0];
    const std::string &group = args[1];
    if (appl.empty() || appl.size() > 20 || group.empty() || group.size() > 32)
        return usage("APPL has 1 to 20 characters, GROUP 1 to 32");
    // The columns and their types from the catalogue, when it knows the group.
    std::vector<CatalogueAttribute> columns;
    std::string text;
    if (ask(dc_getApplAttributes, options, appl.c_str(), text))
        for (const CatalogueAttribute &a : parseAttributes(text))
            if (a.group == group) columns.push_back(a);
    if (columns.empty())
        fprintf(stderr,
                "zevdctl: %s %s is not in the catalogue yet; columns come from the first row\n",
                appl.c_str(), group.c_str());

    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    dataClient = dc_waitOnDataInitialize(appl.c_str(), group.c_str());
    if (dataClient == nullptr) return failed("the data wait could not be registered");
    pthread_t canceller;
    pthread_create(&canceller, nullptr, cancelOnSignal, &signals);

    std::vector<size_t> widths;
    bool headerDone = false;
    static char buffer[32767];
    int result = 0;
    while ((result = dc_waitOnData(dataClient, buffer, static_cast<int>(sizeof buffer))) == 0) {
        Row row = parseRow(buffer, sizeof buffer);
        if (!row.complete) {
            fprintf(stderr, "zevdctl: a message that is not a row was skipped\n");
            continue;
        }
        if (columns.empty())
            for (const auto &[name, value] : row.values)
                columns.push_back({group, name, 0, static_cast<int>(value.size())});
        auto valueOf = [&](const CatalogueAttribute &column, bool &found) {
            found = false;
            for (const auto &[name, value] : row.values)
                if (name == column.attribute) {
                    found = true;
                    return column.type != 0 ? decodeValue(value, column.type) : guessValue(value);
                }
            return std::string();
        };
        if (options.json) {
            std::vector<std::string> keys = {"application", "group", "source", "handle", "flag"};
            std::vector<std::string> values = {row.application, row.group, row.source,
                                               std::to_string(row.handle),
                                               std::to_string(row.flag)};
            std::string line = "{";
            for (size_t i = 0; i < keys.size(); ++i)
                line += (i > 0 ? "," : "") + jsonString(keys[i]) + ":" +
                        (i >= 3 ? values[i] : jsonString(values[i]));
            line += ",\"values\":{";
            bool first = true;
            for (const CatalogueAttribute &column : columns) {
                bool found = false;
                std::string value = valueOf(column, found);
                if (!found) continue;
                bool number = column.type != 0
                                  ? isIntegerType(column.type)
                                  : !value.empty() && value != "-" &&
                                        value.find_first_not_of("-0123456789") == std::string::npos;
                line += (first ? "" : ",") + jsonString(column.attribute) + ":" +
                        (number ? value : jsonString(value));
                first = false;
            }
            printf("%s}}\n", line.c_str());
        } else {
            if (!headerDone) {
                std::vector<std::string> header = {"SOURCE", "HANDLE"};
                widths = {12, 6};
                for (const CatalogueAttribute &column : columns) {
                    header.push_back(column.attribute);
                    size_t natural = isIntegerType(column.type) ? 11
                                     : column.size > 0
                                         ? std::min<size_t>(static_cast<size_t>(column.size), 24)
                                         : 12;
                    widths.push_back(std::max(column.attribute.size(), natural));
                }
                fputs(tableLine(header, widths).c_str(), stdout);
                headerDone = true;
            }
            std::vector<std::string> cells = {row.source, std::to_string(row.handle)};
            for (const CatalogueAttribute &column : columns) {
                bool found = false;
                cells.push_back(valueOf(column, found));
                if (!found) cells.back() = "-";
            }
            fputs(tableLine(cells, widths).c_str(), stdout);
        }
        fflush(stdout);
    }
    // -1: cancelled by Ctrl-C; anything else is a failed wait.
    if (result == -1) pthread_join(canceller, nullptr);
    dc_waitOnDataDestroy(dataClient);
    return result == -1 ? kOk : failed("the data wait failed");
}

// ---------------------------------------------------------------------------
// status, send, action
// ---------------------------------------------------------------------------

int status(const Options &options, const Arguments &) {
    void *client = dc_waitForDPStatusInitialize();
    if (client == nullptr) return failed("the status wait could not be registered");
    // Kept: the wait has no cancel, so Ctrl-C ends the program by the
    // signal's own action.
    for (;;) {
        const char *line = dc_waitForDPStatus(client);
        if (line == nullptr) return failed("the status wait failed");
        if (!options.json) {
            printf("%s\n", line);
        } else {
            StatusLine s;
            if (!parseStatusLine(line, s)) {
                fprintf(stderr, "zevdctl: a status line that does not read: %s\n", line);
                continue;
            }
            writeJson({"application", "group", "source", "host", "info", "request", "event"},
                      {s.application, s.group, s.source, s.host, s.info, std::to_string(s.request),
                       eventName(s.request)},
                      {false, false, false, false, false, true, false});
        }
        fflush(stdout);
    }
}

int send(const Options &options, const Arguments &args) {
    const std::string &appl = args[0];
    const std::string &group = args[1];
    const std::string &source = args[2];
    std::vector<Pair> pairs;
    for (size_t i = 3; i < args.size(); ++i) {
        Pair pair;
        std::string why;
        if (!parsePair(args[i], pair, &why)) return usage(why);
        pairs.push_back(std::move(pair));
    }
    if (appl.empty() || appl.size() > 20 || group.empty() || group.size() > 32 || source.empty() ||
        source.size() > 32)
        return usage("APPL has 1 to 20 characters, GROUP and SOURCE 1 to 32");

    long handle = 0;
    long onlineStatus = -1, dataStatus = -1, offlineStatus = -1;
    int result = dp_online(&onlineStatus, &handle, appl.c_str(), group.c_str(), source.c_str());
    bool online = result == 0 && onlineStatus == 0;
    if (online) {
        char *row = nullptr;
        long size = 0;
        long formatStatus = 0;
        for (const Pair &pair : pairs) {
            dp_formatData(&formatStatus, &row, &size, pair.name.c_str(), pair.value.data(),
                          static_cast<long>(pair.value.size()), pair.type);
            if (formatStatus != 0) break;
        }
        if (formatStatus != 0) {
            dataStatus = formatStatus;
            dp_data(&formatStatus, handle, 0, &row);  // frees the row
        } else {
            dp_data(&dataStatus, handle, 0, &row);
        }
        dp_offline(&offlineStatus, handle);
    }
    if (options.json) {
        printf("{\"handle\":%ld,\"dp_online\":%ld", online ? handle : 0, onlineStatus);
        if (online) printf(",\"dp_data\":%ld,\"dp_offline\":%ld", dataStatus, offlineStatus);
        printf("}\n");
    } else {
        std::vector<std::vector<std::string>> rows = {
            {"handle", online ? std::to_string(handle) : "-"},
            {"dp_online", "status " + std::to_string(onlineStatus)}};
        if (online) {
            rows.push_back({"dp_data", "status " + std::to_string(dataStatus)});
            rows.push_back({"dp_offline", "status " + std::to_string(offlineStatus)});
        }
        fputs(table({"STEP", "RESULT"}, rows).c_str(), stdout);
    }
    fflush(stdout);
    if (!online) return failed("dp_online failed with status " + std::to_string(onlineStatus));
    if (dataStatus != 0) return failed("dp_data failed with status " + std::to_string(dataStatus));
    if (offlineStatus != 0)
        return failed("dp_offline failed with status " + std::to_string(offlineStatus));
    return kOk;
}

int action(const Options &options, const Arguments &args) {
    char *end = nullptr;
    long id = strtol(args[0].c_str(), &end, 10);
    if (args[0].empty() || *end != '\0' || id < INT32_MIN || id > INT32_MAX)
        return usage("ID '" + args[0] + "' is not a 32-bit integer");
    const char *parameters = args.size() > 3 ? args[3].c_str() : nullptr;
    const char *owner = getenv("USER");
    if (dc_provideAction(1, owner != nullptr ? owner : "zevdctl", args[1].c_str(), "",
                         args[2].c_str(), id, 1, parameters) != 0)
        return failed("the action could not be sent");
    int result = dc_waitForActionResults(id);
    if (options.json)
        printf("{\"id\":%ld,\"status\":%d}\n", id, result);
    else
        fputs(table({"ACTION", "STATUS"}, {{std::to_string(id), std::to_string(result)}}).c_str(),
              stdout);
    fflush(stdout);
    return result == 0
               ? kOk
               : failed("action " + args[0] + " ended with status " + std::to_string(result));
}

}  // namespace

int run(int argc, char **argv) {
    static const option kOptions[] = {
        {"addr", required_argument, nullptr, 'a'},
        {"port", required_argument, nullptr, 'p'},
        {"timeout", required_argument, nullptr, 't'},
        {"json", no_argument, nullptr, 'j'},
        {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'V'},
        {nullptr, 0, nullptr, 0},
    };
    Options options;
    // The failures that matter get a line of their own; the library's trace
    // is for who asks for it.
    setenv("ZEVA_TRACE", "none", 0);
    opterr = 0;
    int option = 0;
    // GNU getopt moves the options after the command to the front.
    while ((option = getopt_long(argc, argv, ":", kOptions, nullptr)) != -1) {
        switch (option) {
            case 'a':
                if (*optarg == '\0') return usage("--addr needs a host");
                setenv("ZEVA_DCH_ADDR", optarg, 1);
                break;
            case 'p': {
                char *end = nullptr;
                long port = strtol(optarg, &end, 10);
                if (*optarg == '\0' || *end != '\0' || port < 1 || port > 65535)
                    return usage(std::string("--port takes 1 to 65535, not '") + optarg + "'");
                setenv("ZEVA_DCH_PORT", optarg, 1);
                break;
            }
            case 't': {
                char *end = nullptr;
                long seconds = strtol(optarg, &end, 10);
                if (*optarg == '\0' || *end != '\0' || seconds < 1 || seconds > 32767)
                    return usage(std::string("--timeout takes 1 to 32767 seconds, not '") + optarg +
                                 "'");
                setenv("ZEVA_DCH_TIMEOUT", optarg, 1);
                options.timeout = static_cast<int>(seconds);
                break;
            }
            case 'j': options.json = true; break;
            case 'h': printHelp(); return kOk;
            case 'V': printf("zevdctl %s\n", kVersion); return kOk;
            case ':': return usage(std::string(argv[optind - 1]) + " needs a value");
            default: return usage(std::string("unknown option '") + argv[optind - 1] + "'");
        }
    }
    if (optind >= argc) return usage("no command");
    std::string name = argv[optind];
    Arguments args(argv + optind + 1, argv + argc);
    for (const CommandEntry &c : kCommands) {
        if (name != c.name) continue;
        if (args.size() < c.least || args.size() > c.most)
            return usage(std::string("usage: zevdctl ") + c.name + (*c.arguments ? " " : "") +
                         c.arguments);
        return c.run(options, args);
    }
    return usage("unknown command '" + name + "'");
}

}  // namespace zevdctl

int main(int argc, char **argv) {
    int status = zevdctl::run(argc, argv);
    fflush(stdout);
    return status;
}
