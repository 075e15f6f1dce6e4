// zevdctl: a DCH seen from a shell, on the public C API only.
//
// Exit status: 0 done, 1 a request failed, 2 bad usage. Every failure
// writes one line on standard error; standard output carries only the
// command's own output (a table, or JSON lines with --json). Every argument
// is checked before the first request, so bad usage sends nothing.
#include <getopt.h>
#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "zev0.h"
#include "zevd610.h"
#include "zevdctl_format.h"
#include "zevdctl_trace.h"

namespace zevdctl {
namespace {

constexpr int kOk = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;

// Seconds every wait for an answer takes at most, unless --timeout or
// ZEVA_DCH_TIMEOUT says otherwise: a command line should not hang for the
// library's half minute.
constexpr int kDefaultTimeout = 5;
constexpr int kDefaultPort = 1919;
constexpr size_t kHostMax = 255;  // what the library keeps of a host name

struct Options {
    bool json = false;
    int timeout = 0;  // seconds; 0 until settled: --timeout, ZEVA_DCH_TIMEOUT, else 5
    std::string host;
    int port = 0;
};

using Arguments = std::vector<std::string>;
using Command = int (*)(const Options &, const Arguments &);

int apps(const Options &, const Arguments &);
int attrs(const Options &, const Arguments &);
int help(const Options &, const Arguments &);
int watch(const Options &, const Arguments &);
int status(const Options &, const Arguments &);
int send(const Options &, const Arguments &);
int registerAppl(const Options &, const Arguments &);
int unregisterAppl(const Options &, const Arguments &);
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
    {"apps", "[APPL]", 0, 1, "the registered applications (or APPL, when it is one)",
     "zevdctl apps", apps},
    {"attrs", "APPL", 1, 1, "the attributes of APPL: group, attribute, type, size",
     "zevdctl attrs demo", attrs},
    {"help", "APPL", 1, 1, "the help texts of APPL, its groups and its attributes",
     "zevdctl help demo", help},
    {"watch", "APPL GROUP", 2, 2, "rows of GROUP as they arrive, until Ctrl-C",
     "zevdctl watch demo disk", watch},
    {"status", "", 0, 0,
     "provider status lines as they come (the wait cannot be interrupted: Ctrl-C kills it)",
     "zevdctl status --json", status},
    {"register", "APPL TEXT|@FILE", 2, 2,
     "register APPL with a registration text (APPL, GROUP and ATTR statements) or a file's",
     "zevdctl register demo 'GROUP disk Disk usage;ATTR usedPct A 4 Percent used'", registerAppl},
    {"send", "APPL GROUP SOURCE NAME=TYPE:VALUE...", 4, 1000,
     "online, one row, offline; prints the handle and each status",
     "zevdctl send demo disk node-9 usedPct=A:55", send},
    {"unregister", "APPL", 1, 1, "withdraw APPL and everything online under it",
     "zevdctl unregister demo", unregisterAppl},
    {"action", "ID NODE NAME [PARAMETERS]", 3, 4,
     "hand action NAME (number ID) to NODE, wait for its result",
     "zevdctl action 7 node-1 restart --timeout 10", action},
};

const char kVersion[] = ZEVD_VERSION;

void printHelp() {
    printf("usage: zevdctl [OPTIONS] COMMAND [ARGUMENTS]\n\n");
    printf("Looks at a DCH from a shell: what is registered, what providers send, who comes\n");
    printf("and goes; registers, sends and withdraws as a provider would.\n");
    printf("Options may stand before or after the command.\n\nCommands:\n");
    for (const CommandEntry &c : kCommands)
        printf("  %s%s%s\n      %s\n      e.g. %s\n", c.name, *c.arguments ? " " : "", c.arguments,
               c.summary, c.example);
    printf(
        "\nOptions:\n"
        "  --addr HOST     the DCH's host (default: ZEVA_DCH_ADDR, else this host)\n"
        "  --port N        the DCH's port (default: ZEVA_DCH_PORT, else 1919)\n"
        "  --timeout S     seconds to wait for an answer (default: ZEVA_DCH_TIMEOUT, else 5)\n"
        "  --json          one JSON object per line instead of a table\n"
        "  -h, --help      this text\n"
        "  -V, --version   the version\n"
        "\nAPPL has 1 to 20 characters, GROUP, SOURCE and NAME 1 to 32, none of them a\n"
        "blank, a comma or a control character. TYPE in NAME=TYPE:VALUE is the\n"
        "attribute's type letter: A C G L N take a 32-bit integer, I S a 16-bit integer,\n"
        "any other letter a text. A row has to fit 4096 bytes.\n"
        "\nTables show each control character and each byte that is not UTF-8 as \\xHH.\n"
        "\nThe library's trace goes to standard error, at the levels of ZEVA_TRACE (none\n"
        "when it is not set).\n"
        "\nExit status: 0 done (an empty answer too), 1 a request failed or was not\n"
        "answered (or the output could not be written), 2 bad usage (nothing was sent).\n");
}

int usage(const std::string &what) {
    fprintf(stderr, "zevdctl: %s\nTry 'zevdctl --help'.\n", terminalText(what).c_str());
    return kUsage;
}

int failed(const std::string &what) {
    fprintf(stderr, "zevdctl: %s\n", terminalText(what).c_str());
    return kFailed;
}

// Flushes standard output. False, once said on standard error, when what
// was written could not all go (a full disk, a closed descriptor): a
// command whose output is lost has not done its work.
bool outputFlushed() {
    static bool said = false;
    if (fflush(stdout) == 0 && !ferror(stdout)) return true;
    if (!said) {
        said = true;
        fprintf(stderr, "zevdctl: cannot write standard output: %s\n", strerror(errno));
    }
    return false;
}

std::string dchName(const Options &options) {
    return options.host + ":" + std::to_string(options.port);
}

int noAnswer(const Options &options) {
    return failed("no answer from the DCH at " + dchName(options) + " within " +
                  std::to_string(options.timeout) + " s");
}

// A request's status word as a failure line: "dp_online failed with status
// 17 (the application is not registered)", or the no-answer line.
int refused(const Options &options, const char *request, long status) {
    if (status == ZEVD_STATUS_NO_RESPONSE) return noAnswer(options);
    std::string meaning = statusMeaning(status);
    return failed(std::string(request) + " failed with status " + std::to_string(status) +
                  (meaning.empty() ? "" : " (" + meaning + ")"));
}

// A number of the whole text within [low, high].
bool parseNumber(const char *text, long low, long high, long &out) {
    if (text == nullptr || *text == '\0') return false;
    for (const char *c = text; *c != '\0'; ++c)
        if (*c < '0' || *c > '9') return false;
    char *end = nullptr;
    errno = 0;
    long value = strtol(text, &end, 10);
    if (errno != 0 || *end != '\0' || value < low || value > high) return false;
    out = value;
    return true;
}

// Settles the DCH's host, port and time-out from the options and the
// library's own variables, and hands the time-out to the library (which
// reads its configuration once, at the first request). Bad usage when one
// of them would not work: the library would read a port or a time-out that
// is not a number as 0, and a time-out of 0 as "wait for ever".
int settleTarget(Options &options) {
    long number = 0;
    if (options.timeout == 0) {
        const char *configured = getenv("ZEVA_DCH_TIMEOUT");
        if (configured == nullptr)
            number = kDefaultTimeout;
        else if (!parseNumber(configured, 1, 32767, number))
            return usage(std::string("ZEVA_DCH_TIMEOUT takes 1 to 32767 seconds, not '") +
                         configured + "'");
        options.timeout = static_cast<int>(number);
    }
    setenv("ZEVA_DCH_TIMEOUT", std::to_string(options.timeout).c_str(), 1);

    const char *port = getenv("ZEVA_DCH_PORT");
    const char *portFrom = "ZEVA_DCH_PORT";
    if (port == nullptr) {
        port = ZEV0_QueryProductSpec(21);
        portFrom = "settings item 21";
    }
    if (port == nullptr)
        number = kDefaultPort;
    else if (!parseNumber(port, 1, 65535, number))
        return usage(std::string(portFrom) + " takes a port from 1 to 65535, not '" + port + "'");
    options.port = static_cast<int>(number);

    const char *host = getenv("ZEVA_DCH_ADDR");
    if (host == nullptr) host = ZEV0_LocalHostNameString();
    if (host == nullptr || *host == '\0') return usage("no DCH host: ZEVA_DCH_ADDR is empty");
    options.host = host;
    if (options.host.size() > kHostMax)
        return usage("the DCH host has more than " + std::to_string(kHostMax) + " characters");
    struct sockaddr_in address;
    if (ZEV0_ConvertNameToAddr(host, static_cast<unsigned short>(options.port), &address) == 0)
        return usage("the DCH host '" + options.host + "' does not resolve");
    return kOk;
}

using Clock = std::chrono::steady_clock;

// True once a wait that started at start has used up the time-out: a
// request that failed by then was not answered.
bool waitedOut(Clock::time_point start, const Options &options) {
    return Clock::now() - start + std::chrono::milliseconds(250) >=
           std::chrono::seconds(options.timeout);
}

// ---------------------------------------------------------------------------
// Catalogue queries
// ---------------------------------------------------------------------------

using Query = int (*)(int *, char **, const char *, int);
struct QueryEntry {
    Query query;
    const char *method;   // its trace name
    const char *storage;  // its line when it keeps the answer's text
};
const QueryEntry kApplications = {dc_getApplications, "DCHclient::dc_getApplications",
                                  "Allocated applInfo buffer"};
const QueryEntry kAttributes = {dc_getApplAttributes, "DCHclient::dc_getApplAttributes",
                                "Allocated attrInfo buffer"};
const QueryEntry kHelp = {dc_getApplHelp, "DCHclient::dc_getApplHelp", "Allocated helpInfo buffer"};

enum class Answer { text, empty, none, notSent, unreadable };

// One catalogue query. The library fails an empty text as it fails a
// missing answer (status 1 both), so its trace tells them apart: the query
// keeps the text of any answer it reads (its storage line), an empty one
// included, and writes its failures at the error level.
Answer ask(const QueryEntry &entry, const Options &options, const char *appl, std::string &text) {
    TraceWatch trace(std::string(entry.method) + "=error+storage");
    int length = 0;
    char *answer = nullptr;
    int result = entry.query(&length, &answer, appl, options.timeout);
    if (result == 0 && answer != nullptr) {
        text.assign(answer, static_cast<size_t>(length));
        free(answer);
        return Answer::text;
    }
    free(answer);
    if (trace.saw(entry.storage)) return Answer::empty;
    if (trace.saw("dataType of DCH_response missing")) return Answer::unreadable;
    if (trace.saw("message to DCHserver")) return Answer::notSent;
    // Kept with a length and no text: the text could not be allocated.
    if (result == 0) return Answer::unreadable;
    return Answer::none;
}

// The failure line of an answer that is neither a text nor empty.
int askFailed(Answer answer, const Options &options) {
    switch (answer) {
        case Answer::none: return noAnswer(options);
        case Answer::notSent:
            return failed("the request could not be sent to the DCH at " + dchName(options));
        default:
            return failed("the answer of the DCH at " + dchName(options) +
                          " is not a catalogue text");
    }
}

void writeJson(const std::vector<std::string> &keys, const std::vector<std::string> &values,
               const std::vector<bool> &numeric) {
    Json object = Json::object();
    for (size_t i = 0; i < keys.size(); ++i) {
        if (numeric[i])
            object[keys[i]] = atol(values[i].c_str());
        else
            object[keys[i]] = values[i];
    }
    fputs(jsonLine(object).c_str(), stdout);
}

// Prints a catalogue text as a table or as JSON lines; an empty answer
// prints nothing.
int catalogue(const QueryEntry &entry, const Options &options, const char *appl,
              const std::vector<std::string> &header, const std::vector<std::string> &keys,
              const std::vector<bool> &numeric) {
    std::string text;
    Answer answer = ask(entry, options, appl, text);
    if (answer == Answer::empty) return kOk;
    if (answer != Answer::text) return askFailed(answer, options);
    std::vector<std::vector<std::string>> rows = splitLines(text, header.size());
    if (options.json) {
        for (const auto &row : rows) writeJson(keys, row, numeric);
    } else {
        fputs(table(header, rows).c_str(), stdout);
    }
    return kOk;
}

int apps(const Options &options, const Arguments &args) {
    std::string why;
    if (!args.empty() && !checkName(NameKind::application, args[0], &why)) return usage(why);
    return catalogue(kApplications, options, args.empty() ? nullptr : args[0].c_str(),
                     {"APPLICATION"}, {"application"}, {false});
}

int attrs(const Options &options, const Arguments &args) {
    std::string why;
    if (!checkName(NameKind::application, args[0], &why)) return usage(why);
    return catalogue(kAttributes, options, args[0].c_str(), {"GROUP", "ATTRIBUTE", "TYPE", "SIZE"},
                     {"group", "attribute", "type", "size"}, {false, false, false, true});
}

int help(const Options &options, const Arguments &args) {
    std::string why;
    if (!checkName(NameKind::application, args[0], &why)) return usage(why);
    return catalogue(kHelp, options, args[0].c_str(), {"GROUP", "ATTRIBUTE", "HELP"},
                     {"group", "attribute", "help"}, {false, false, false});
}

// ---------------------------------------------------------------------------
// watch
// ---------------------------------------------------------------------------

void *dataClient = nullptr;

// Takes Ctrl-C and SIGTERM and wakes the data wait; a signal handler could
// not (the cancel takes a lock).
// Set by the canceller, and by the watch around a question to the
// catalogue: one of the two sees the other's (sequentially consistent).
std::atomic<bool> watchCancelled{false};
std::atomic<bool> askingCatalogue{false};

void *cancelOnSignal(void *signals) {
    int received = 0;
    sigwait(static_cast<sigset_t *>(signals), &received);
    watchCancelled.store(true);
    dc_waitOnDataCancel(dataClient);
    // A question to the catalogue cannot be cancelled, and a DCH that does
    // not answer would hold Ctrl-C for the whole time-out: every row shown
    // is out already, so the watch ends here.
    if (askingCatalogue.load()) {
        fflush(stdout);
        _exit(kOk);
    }
    return nullptr;
}

// Adds to columns what the catalogue says of group's attributes: the ones
// it has no column for yet, and the type of a column taken from a row.
void learnColumns(const std::string &text, const std::string &group,
                  std::vector<CatalogueAttribute> &columns) {
    for (const CatalogueAttribute &a : parseAttributes(text)) {
        if (a.group != group) continue;
        auto known = std::find_if(columns.begin(), columns.end(), [&](const auto &column) {
            return column.attribute == a.attribute;
        });
        if (known == columns.end())
            columns.push_back(a);
        else if (known->type == 0)
            *known = a;
    }
}

// A row that names an attribute the watch has no column for (its group
// registered, or registered again, since the watch began): the catalogue
// is asked again, once for each such name, and every attribute it still
// does not know gets a column of unknown type. True when columns changed.
bool newColumns(const Options &options, const std::string &appl, const std::string &group,
                const Row &row, std::vector<CatalogueAttribute> &columns,
                std::set<std::string> &askedFor) {
    bool unseen = false;
    for (const auto &[name, value] : row.values)
        if (askedFor.insert(name).second) unseen = true;
    if (!unseen) return false;
    size_t before = columns.size();
    std::vector<char> typesBefore(columns.size());
    for (size_t i = 0; i < columns.size(); ++i) typesBefore[i] = columns[i].type;
    std::string text;
    askingCatalogue.store(true);
    if (!watchCancelled.load() && ask(kAttributes, options, appl.c_str(), text) == Answer::text)
        learnColumns(text, group, columns);
    askingCatalogue.store(false);
    for (const auto &named : row.values) {
        bool known = std::any_of(columns.begin(), columns.end(), [&](const auto &column) {
            return column.attribute == named.first;
        });
        if (!known)
            columns.push_back({group, named.first, 0, static_cast<int>(named.second.size())});
    }
    for (size_t i = 0; i < before; ++i)
        if (columns[i].type != typesBefore[i]) return true;
    return columns.size() != before;
}

int watch(const Options &options, const Arguments &args) {
    const std::string &appl = args[0];
    const std::string &group = args[1];
    std::string why;
    if (!checkName(NameKind::application, appl, &why) || !checkName(NameKind::group, group, &why))
        return usage(why);
    // The columns and their types from the catalogue, when it knows the group.
    std::vector<CatalogueAttribute> columns;
    std::string text;
    Answer answer = ask(kAttributes, options, appl.c_str(), text);
    if (answer != Answer::text && answer != Answer::empty) return askFailed(answer, options);
    learnColumns(text, group, columns);
    std::set<std::string> askedFor;
    for (const CatalogueAttribute &column : columns) askedFor.insert(column.attribute);
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
        // A table shows its header again when the columns grow.
        if (newColumns(options, appl, group, row, columns, askedFor)) headerDone = false;
        if (options.json) {
            fputs(jsonLine(rowJson(row, columns)).c_str(), stdout);
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
                    widths.push_back(
                        std::max(displayWidth(terminalText(column.attribute)), natural));
                }
                fputs(tableLine(header, widths).c_str(), stdout);
                headerDone = true;
            }
            std::vector<std::string> cells = {row.source, std::to_string(row.handle)};
            for (const CatalogueAttribute &column : columns) {
                std::string cell = "-";
                for (const auto &[name, value] : row.values)
                    if (name == column.attribute) cell = decodeValue(value, column.type);
                cells.push_back(cell);
            }
            fputs(tableLine(cells, widths).c_str(), stdout);
        }
        if (!outputFlushed()) {
            // The canceller waits in sigwait, where it may be cancelled.
            pthread_cancel(canceller);
            pthread_join(canceller, nullptr);
            dc_waitOnDataDestroy(dataClient);
            return kFailed;
        }
    }
    // -1: cancelled by Ctrl-C; anything else is a failed wait.
    if (result == -1) pthread_join(canceller, nullptr);
    dc_waitOnDataDestroy(dataClient);
    return result == -1 ? kOk : failed("the data wait failed");
}

// ---------------------------------------------------------------------------
// status
// ---------------------------------------------------------------------------

int status(const Options &options, const Arguments &) {
    // The status wait reads no answer and waits for ever: first make sure
    // that a DCH answers there at all.
    std::string text;
    Answer answer = ask(kApplications, options, nullptr, text);
    if (answer != Answer::text && answer != Answer::empty) return askFailed(answer, options);
    void *client = dc_waitForDPStatusInitialize();
    if (client == nullptr) return failed("the status wait could not be registered");
    // Kept: the wait has no cancel, so Ctrl-C ends the program by the
    // signal's own action.
    for (;;) {
        const char *line = dc_waitForDPStatus(client);
        if (line == nullptr) return failed("the status wait failed");
        if (!options.json) {
            printf("%s\n", terminalText(line).c_str());
        } else {
            StatusLine s;
            if (!parseStatusLine(line, s)) {
                fprintf(stderr, "zevdctl: a status line that does not read: %s\n",
                        terminalText(line).c_str());
                continue;
            }
            writeJson({"application", "group", "source", "host", "info", "request", "event"},
                      {s.application, s.group, s.source, s.host, s.info, std::to_string(s.request),
                       eventName(s.request)},
                      {false, false, false, false, false, true, false});
        }
        if (!outputFlushed()) return kFailed;
    }
}

// ---------------------------------------------------------------------------
// The provider's side: register, send, unregister
// ---------------------------------------------------------------------------

// A row that could not be formatted whole: kept reachable, never sent.
char *unsentRow = nullptr;

// Prints the steps of a provider's requests: as STEP RESULT lines, or as
// one JSON object.
void printSteps(const Options &options, const std::vector<std::pair<std::string, long>> &steps) {
    if (options.json) {
        Json object = Json::object();
        for (const auto &[step, value] : steps) object[step] = value;
        fputs(jsonLine(object).c_str(), stdout);
    } else {
        std::vector<std::vector<std::string>> rows;
        rows.reserve(steps.size());
        for (const auto &[step, value] : steps)
            rows.push_back({step, step == "handle" ? std::to_string(value)
                                                   : "status " + std::to_string(value)});
        fputs(table({"STEP", "RESULT"}, rows).c_str(), stdout);
    }
    fflush(stdout);
}

int registerAppl(const Options &options, const Arguments &args) {
    std::string text, why;
    if (!prepareRegistration(args[0], args[1], text, &why)) return usage(why);
    long result = -1;
    dp_register(&result, text.c_str());
    printSteps(options, {{"dp_register", result}});
    return result == 0 ? kOk : refused(options, "dp_register", result);
}

int unregisterAppl(const Options &options, const Arguments &args) {
    std::string why;
    if (!checkName(NameKind::application, args[0], &why)) return usage(why);
    long result = -1;
    dp_unregister(&result, args[0].c_str());
    printSteps(options, {{"dp_unregister", result}});
    return result == 0 ? kOk : refused(options, "dp_unregister", result);
}

int send(const Options &options, const Arguments &args) {
    const std::string &appl = args[0];
    const std::string &group = args[1];
    const std::string &source = args[2];
    std::string why;
    if (!checkName(NameKind::application, appl, &why) || !checkName(NameKind::group, group, &why) ||
        !checkName(NameKind::source, source, &why))
        return usage(why);
    std::vector<Pair> pairs;
    for (size_t i = 3; i < args.size(); ++i) {
        Pair pair;
        if (!parsePair(args[i], pair, &why)) return usage(why);
        pairs.push_back(std::move(pair));
    }
    // Nothing goes online for a row that could not be sent whole.
    if (!rowFits(pairs, &why)) return usage(why);

    long handle = 0;
    long onlineStatus = -1, dataStatus = -1, offlineStatus = -1;
    Clock::time_point start = Clock::now();
    dp_online(&onlineStatus, &handle, appl.c_str(), group.c_str(), source.c_str());
    if (onlineStatus != 0) {
        printSteps(options, {{"dp_online", onlineStatus}});
        return refused(options, "dp_online", onlineStatus);
    }
    char *row = nullptr;
    long size = 0;
    for (const Pair &pair : pairs) {
        long formatStatus = 0;
        dp_formatData(&formatStatus, &row, &size, pair.name.c_str(), pair.value.data(),
                      static_cast<long>(pair.value.size()), pair.type);
        if (formatStatus != 0 && dataStatus == -1) dataStatus = formatStatus;
    }
    if (dataStatus != -1) {
        // Not reached after rowFits, which encoded the same pairs. Only
        // dp_data frees a row, and it would send this one half: the buffer
        // is left to the end of the process instead.
        unsentRow = row;
    } else {
        // The row waits only for what is left of the time-out.
        auto used = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start);
        auto left = static_cast<short>(std::max<long>(1, options.timeout - used.count()));
        dp_actionData(&dataStatus, handle, 0, &row, left, 0);
    }
    // A DCH that stopped answering is not asked again.
    if (dataStatus != ZEVD_STATUS_NO_RESPONSE) dp_offline(&offlineStatus, handle);
    std::vector<std::pair<std::string, long>> steps = {
        {"handle", handle}, {"dp_online", onlineStatus}, {"dp_data", dataStatus}};
    if (dataStatus != ZEVD_STATUS_NO_RESPONSE) steps.emplace_back("dp_offline", offlineStatus);
    printSteps(options, steps);
    if (dataStatus != 0) return refused(options, "dp_data", dataStatus);
    if (offlineStatus != 0) return refused(options, "dp_offline", offlineStatus);
    return kOk;
}

// ---------------------------------------------------------------------------
// action
// ---------------------------------------------------------------------------

int action(const Options &options, const Arguments &args) {
    char *end = nullptr;
    errno = 0;
    long id = strtol(args[0].c_str(), &end, 10);
    if (args[0].empty() || *end != '\0' || errno != 0 || id < INT32_MIN || id > INT32_MAX)
        return usage("ID '" + args[0] + "' is not a 32-bit integer");
    if (args[1].empty() || args[2].empty()) return usage("NODE and NAME take at least a character");
    const std::string *parameters = args.size() > 3 ? &args[3] : nullptr;
    const char *user = getenv("USER");
    std::string owner = user != nullptr ? user : "zevdctl";
    if (!actionFits(owner, args[1], args[2], parameters))
        return usage("the action's texts do not fit the library's 4096-byte request");
    if (dc_provideAction(1, owner.c_str(), args[1].c_str(), "", args[2].c_str(), id, 1,
                         parameters != nullptr ? parameters->c_str() : nullptr) != 0)
        return failed("the action could not be sent to the DCH at " + dchName(options));
    Clock::time_point start = Clock::now();
    int result = dc_waitForActionResults(id);
    if (result == -1 && waitedOut(start, options)) return noAnswer(options);
    if (options.json) {
        Json object = Json::object();
        object["id"] = id;
        object["status"] = result;
        fputs(jsonLine(object).c_str(), stdout);
    } else {
        fputs(table({"ACTION", "STATUS"}, {{std::to_string(id), std::to_string(result)}}).c_str(),
              stdout);
    }
    fflush(stdout);
    return result == 0 ? kOk : refused(options, ("action " + args[0]).c_str(), result);
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
    while ((option = getopt_long(argc, argv, ":hV", kOptions, nullptr)) != -1) {
        switch (option) {
            case 'a':
                if (*optarg == '\0') return usage("--addr needs a host");
                setenv("ZEVA_DCH_ADDR", optarg, 1);
                break;
            case 'p': {
                long port = 0;
                if (!parseNumber(optarg, 1, 65535, port))
                    return usage(std::string("--port takes 1 to 65535, not '") + optarg + "'");
                setenv("ZEVA_DCH_PORT", optarg, 1);
                break;
            }
            case 't': {
                long seconds = 0;
                if (!parseNumber(optarg, 1, 32767, seconds))
                    return usage(std::string("--timeout takes 1 to 32767 seconds, not '") + optarg +
                                 "'");
                options.timeout = static_cast<int>(seconds);
                break;
            }
            case 'j': options.json = true; break;
            case 'h': printHelp(); return kOk;
            case 'V': printf("zevdctl %s\n", kVersion); return kOk;
            case ':': return usage(std::string(argv[optind - 1]) + " needs a value");
            default:
                if (optopt != 0)
                    return usage(std::string("unknown option '-") + static_cast<char>(optopt) +
                                 "'");
                return usage(std::string("unknown option '") + argv[optind - 1] + "'");
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
        int settled = settleTarget(options);
        if (settled != kOk) return settled;
        return c.run(options, args);
    }
    return usage("unknown command '" + name + "'");
}

}  // namespace zevdctl

int main(int argc, char **argv) {
    int status = zevdctl::run(argc, argv);
    if (!zevdctl::outputFlushed() && status == zevdctl::kOk) status = zevdctl::kFailed;
    return status;
}
