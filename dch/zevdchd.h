// zevdchd: the reference DCH. The Dch object holds what the DCH knows (the
// registration catalogue, the open handles, the subscribers, the recorded
// actions) and answers one request at a time through a table of handlers,
// one per request code. It never touches a socket itself: answers and
// deliveries go through a Transport, so the handlers run the same under the
// unit tests as in the daemon.
#ifndef ZEVD_DCH_ZEVDCHD_H
#define ZEVD_DCH_ZEVDCHD_H

#include <netinet/in.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "common/message.h"
#include "zev0.h"
#include "zevd610.h"
#include "zevdchd_catalogue.h"

namespace zevd::dch {

extern TraceUnit unitZevdchd;

// Largest message the daemon builds (its answers and what it forwards).
inline constexpr size_t kReplySize = 64 * 1024;
// The bytes of text one catalogue answer carries (after its length word and
// its one field's header): answerText cuts the rest off.
inline constexpr size_t kAnswerTextRoom = kReplySize - kFirstField - 6;
// Limits that keep the daemon's memory bounded whatever its clients send.
inline constexpr size_t kMaxApplications = 1024;
inline constexpr size_t kMaxHandles = 65536;
inline constexpr size_t kMaxActions = 4096;   // the oldest is forgotten beyond
inline constexpr size_t kMaxDeferred = 4096;  // likewise
// The defaults of --max-catalogue (bytes of registration text of every
// catalogue together) and --max-subscribers (data and status together).
inline constexpr size_t kDefaultMaxCatalogue = size_t{64} << 20;
inline constexpr size_t kDefaultMaxSubscribers = 4096;
// A subscriber is dropped after this many failed sends, unless this many
// sends in a row succeeded in between (a UDP peer that has gone reports
// its refusal on every other send).
inline constexpr int kMaxSendFailures = 3;
inline constexpr int kSendsThatClearFailures = 16;
// Status reports are sent this many at most in one go: an event that
// reaches many subscribers (an unregister that takes thousands of handles
// offline) is sent in slices between requests, not in one turn of the
// worker.
inline constexpr size_t kStatusSendsPerTurn = 1024;
// Past this many reports waiting to be sent, the worker sends them before
// it takes another request: what waits stays bounded however fast events
// come. It holds an unregister of every handle at once.
inline constexpr size_t kMaxWaitingReports = 2 * kMaxHandles;
// Bytes kept of the latest value of a text attribute (the metrics page shows
// no more of it).
inline constexpr size_t kLatestTextMax = 256;
// The latest values of every handle together, counted as a handle's values
// can grow (kLatestTextMax for a text attribute): past this, a handle's rows
// keep none until others have closed.
inline constexpr size_t kMaxLatestBytes = 64 * 1024 * 1024;

// Where a request came from and where its answer goes: the sender's address,
// and the TCP connection it came on (0 for UDP).
struct Peer {
    sockaddr_in addr{};
    uint32_t fd = 0;

    std::string host() const;  // dotted address
    int port() const;          // host order
    bool operator==(const Peer &other) const;
};

// True for the type letters whose values are integers: A C G L N (2 or 4
// bytes) and I S (2 bytes). Every other letter is text.
bool isNumberType(char type);

// The latest value a handle's rows gave one attribute: a number, or the
// text up to its first zero byte and at most kLatestTextMax bytes.
struct LatestValue {
    bool set = false;  // no row has given it yet
    int64_t number = 0;
    std::string text;
};

// A registered application: its own name and help, and its catalogue.
struct Application : Catalogue {
    std::string name;
    std::string help;
    Peer registeredBy;

    // What it weighs against --max-catalogue.
    size_t requestBytes() const { return Catalogue::requestBytes(name, help); }
};

struct OpenHandle {
    int32_t id = 0;
    std::string appl;
    std::string group;
    std::string source;
    Peer provider;
    // One per attribute of the group, in catalogue order, from the first
    // accepted row on; emptied when the application registers again. Kept
    // in the handle, so that every way a handle closes drops its values.
    std::vector<LatestValue> latest;
    // What latest is counted as against kMaxLatestBytes (0 without it), and
    // whether the refusal of its values was traced already.
    size_t latestCharge = 0;
    bool latestRefused = false;
    // Its latest online or accepted row (--source-ttl).
    std::chrono::steady_clock::time_point lastActive{};
};

struct Subscriber {
    Peer peer;
    std::string appl;   // data subscribers only
    std::string group;  // data subscribers only
    int failures = 0;
    int sendsSinceFailure = 0;
    bool dropped = false;  // in the round of sends under way; taken out at its end
    uint64_t since = 0;    // when it subscribed, in subscriptions made: a report goes to
                           // those that subscribed before its event
};

struct Action {
    int32_t id = 0;
    int16_t type = 0;
    std::string owner, node, subnode, name;
    int16_t utf8 = 0;
    bool hasParms = false;  // the parameters are never kept: they may hold a credential
};

struct DeferredReport {
    int32_t actionID = 0;
    int32_t object = 0;
    int32_t time = 0;
    std::string applKey, table, source;
};

// The statuses the daemon answers; 0 is success. Kept apart from the
// client's own values (1 to 5).
enum DchStatus : int32_t {
    kOk = 0,
    kMalformed = ZEVD_DCH_MALFORMED,
    kUnknownAppl = ZEVD_DCH_UNKNOWN_APPL,
    kUnknownGroup = ZEVD_DCH_UNKNOWN_GROUP,
    kUnknownHandle = ZEVD_DCH_UNKNOWN_HANDLE,
    kUnknownAttr = ZEVD_DCH_UNKNOWN_ATTR,
    kFull = ZEVD_DCH_FULL,
    kUnknownAction = ZEVD_DCH_UNKNOWN_ACTION,
    kBadCatalogue = ZEVD_DCH_BAD_CATALOGUE,
    kNotSaved = ZEVD_DCH_NOT_SAVED,
};

// Why something was dropped, for the counters.
enum DropReason : int {
    kDropRefusedSender,
    kDropMalformed,
    kDropUnknownHandle,
    kDropSubscriberUnreachable,
    kDropAnswerUnsent,
    kDropSubscriberLimit,  // a subscription refused: --max-subscribers reached
    kDropKernel,
    kDropReasons
};

// A drop reason's name in the counters ("refused_sender").
const char *dropReasonName(int reason);

// What the daemon did, read by the SIGUSR1 thread while the worker counts.
struct Counters {
    std::map<int, std::atomic<uint64_t>> requests;  // by request code, filled at start
    std::atomic<uint64_t> unknownRequests{0};
    std::atomic<uint64_t> answers{0};
    std::atomic<uint64_t> rowsForwarded{0};
    std::atomic<uint64_t> statusReports{0};
    std::atomic<uint64_t> dataSubscribers{0};
    std::atomic<uint64_t> statusSubscribers{0};
    std::atomic<uint64_t> providersOnline{0};
    std::atomic<uint64_t> statusReportsWaiting{0};
    std::array<std::atomic<uint64_t>, kDropReasons> drops{};

    Counters();
    // One "counter NAME VALUE" text per counter, in a fixed order.
    // kernelDrops is read from the DCH socket by the caller.
    std::vector<std::string> lines() const;
};

// What the handlers send through.
class Transport {
public:
    virtual ~Transport() = default;
    // Sends message to peer: over UDP from the DCH port, or on peer.fd.
    // False when it could not be sent.
    virtual bool answer(const Peer &peer, const char *message, size_t length) = 0;
    // Sends message to a subscriber, never waiting on it; false when the
    // send failed. A TCP subscriber's connection that could not take the
    // whole message is closed by the transport.
    virtual bool deliver(const Peer &peer, const char *message, size_t length) = 0;
    // A round of deliveries begins: a transport may first learn here which
    // subscribers refused what it sent before.
    virtual void beginDeliveries() {}
    // A subscriber was dropped or withdrew: forget any resources for it.
    virtual void forget(const Peer & /*peer*/) {}
    // Closes a TCP connection whose answer could not be sent.
    virtual void closeConnection(uint32_t /*fd*/) {}
    // From holdAnswers() to flushAnswers(), a transport may keep answers
    // over UDP (reported sent) and send them together at the flush, before
    // any delivery. flushAnswers() adds the peers of those that did not go
    // to unsent.
    virtual void holdAnswers() {}
    virtual void flushAnswers(std::vector<Peer> & /*unsent*/) {}
};

// One received message as the worker hands it over.
struct Request {
    const char *data = nullptr;
    size_t size = 0;  // bytes that may be read: never more than were received
    Peer from;
};

// The files of --state-dir (zevdchd_state.h).
struct StateStore;
struct StateLoad;

class Dch {
public:
    explicit Dch(Transport &transport);
    ~Dch();
    Dch(const Dch &) = delete;
    Dch &operator=(const Dch &) = delete;

    // Takes one request: refuses senders outside the allowed networks,
    // dispatches by request code, answers when the request has an answer.
    void handle(const Request &request);
    // Around several requests served in a row: their answers over UDP may
    // leave together, at flushAnswers(), each still after its own work.
    void holdAnswers() { transport_.holdAnswers(); }
    void flushAnswers();
    // A TCP connection closed: forgets the handles opened and the
    // subscriptions made on it.
    void disconnect(uint32_t fd);
    // Sends status reports that wait, at most sends of them; true when some
    // still wait. Each request, tick and disconnect ends with one such
    // slice; the worker sends more between requests while its queue is
    // empty.
    bool sendStatusReports(size_t sends = kStatusSendsPerTurn);
    size_t statusReportsWaiting() const { return waitingReports_.size(); }
    // So many wait that the worker sends them before taking a request.
    bool statusReportsOverdue() const { return waitingReports_.size() > kMaxWaitingReports; }

    // Networks served besides loopback and this host's own addresses:
    // "a.b.c.d/n" separated by commas. False, with *bad naming the entry,
    // when one does not parse.
    bool allow(const std::string &cidrs, std::string *bad);
    // Adds this host's own IPv4 addresses to the served networks.
    void allowOwnAddresses();
    bool allowed(const sockaddr_in &addr) const;
    // For the transport's accept, on the receive thread: a connection from
    // outside the served networks is refused (traced, counted as a refused
    // sender) before it takes a client slot. The networks are fixed before
    // the port opens.
    bool admitsConnection(const sockaddr_in &peer);

    // --state-dir: where the catalogue and the open handles are kept. Locks
    // the directory, reads the snapshot and replays the journal; a snapshot
    // that does not read back whole is set aside. False, with *why saying
    // what and why, when the directory cannot be used (the start ends).
    bool useStateDir(const std::string &dir, std::string *why);
    // Writes a new snapshot of everything held and starts an empty journal
    // (at a clean stop, so that the next start has no journal to replay).
    // False, with *why, when it could not; the journal then stays in force.
    bool writeStateSnapshot(std::string *why);
    // --source-ttl: a handle without an online or an accepted row for this
    // long is taken offline by expireIdle (0, the default: never).
    void setSourceTtl(std::chrono::seconds ttl) { sourceTtl_ = ttl; }
    // Takes offline, reported as an offline, each handle idle past the ttl
    // at now.
    void expireIdle(std::chrono::steady_clock::time_point now);

    // --max-catalogue and --max-subscribers.
    void setMaxCatalogue(size_t bytes) { maxCatalogue_ = bytes; }
    void setMaxSubscribers(size_t count) { maxSubscribers_ = count; }
    // Whether accepted rows leave their values in their handles (for the
    // metrics page; without --metrics nothing reads them, and none is kept).
    void setKeepLatestValues(bool keep) { keepLatest_ = keep; }
    // What the latest values of every handle together are counted as.
    size_t latestBytes() const { return latestBytes_; }
    // The registration text of every catalogue together.
    size_t catalogueBytes() const;

    Counters &counters() { return counters_; }
    const Counters &counters() const { return counters_; }
    // When this Dch was made, in seconds since the epoch.
    int64_t startTime() const { return startTime_; }
    const std::map<std::string, Application> &applications() const { return applications_; }
    const std::map<int32_t, OpenHandle> &handles() const { return handles_; }
    const std::vector<Subscriber> &dataSubscribers() const { return dataSubscribers_; }
    const std::vector<Subscriber> &statusSubscribers() const { return statusSubscribers_; }
    const std::deque<Action> &actions() const { return actions_; }
    const std::deque<DeferredReport> &deferredReports() const { return deferred_; }
    int32_t nextHandle() const { return nextHandle_; }

    // What a request is answered with.
    enum Answer { kNoAnswer, kStatusAnswer, kHandleAnswer, kTextAnswer };
    // The handler of a request code, nullptr when the code has none.
    struct Handler {
        int16_t code;
        const char *name;
        Answer answer;
        void (Dch::*run)(FieldReader &reader, const Request &request);
    };
    static const Handler *handlerFor(int code);
    static const std::vector<Handler> &handlerTable();

private:
    // Handlers, one per request code.
    void onRegister(FieldReader &reader, const Request &request);
    void onOnline(FieldReader &reader, const Request &request);
    void onUnregister(FieldReader &reader, const Request &request);
    void onOffline(FieldReader &reader, const Request &request);
    void onData(FieldReader &reader, const Request &request);
    void onGetApplications(FieldReader &reader, const Request &request);
    void onGetApplHelp(FieldReader &reader, const Request &request);
    void onSendApplNameList(FieldReader &reader, const Request &request);
    void onGetApplAttributes(FieldReader &reader, const Request &request);
    void onWaitOnData(FieldReader &reader, const Request &request);
    void onWaitForDPStatus(FieldReader &reader, const Request &request);
    void onProvideAction(FieldReader &reader, const Request &request);
    void onWaitForActionResults(FieldReader &reader, const Request &request);
    void onDeferReportRequest(FieldReader &reader, const Request &request);

    // Reads a catalogue query's application: false, with the query refused,
    // when it does not read; application nullptr when it is not registered.
    bool readQuery(FieldReader &reader, const Request &request, const Application *&application);
    // The one message writer: every answer and delivery is built here.
    MessageBuilder startMessage();
    // Sends a built answer to the request's sender; a TCP connection whose
    // answer cannot be sent is closed.
    void sendAnswer(const Request &request, const MessageBuilder &message);
    // Reports an answer the transport held and then could not send.
    void answerUnsent(const Peer &peer);
    // Answers with a status (and a handle when one is given).
    void answerStatus(const Request &request, int32_t status, const int32_t *handle = nullptr);
    // Answers a catalogue query with text (DCH_response, no terminating zero).
    void answerText(const Request &request, const std::string &text);
    // The request in hand does not read: traced and counted, answered with
    // status 16 (and handle 0) or an empty text where it has an answer,
    // otherwise dropped. why may be nullptr.
    void refuseMalformed(const Request &request, const char *why);
    // Sends the message under construction to every subscriber in list
    // that matches; drops those that keep failing.
    void deliverToAll(std::vector<Subscriber> &list, const MessageBuilder &message,
                      const std::string *appl, const std::string *group);
    // Sends message to the subscriber at it, counts the send and moves it
    // on; a subscriber that keeps failing is marked dropped, and
    // removeDropped takes it out of its list once the round is over. row: a
    // data subscriber (its trace lines).
    void deliverTo(std::vector<Subscriber>::iterator &it, const char *message, size_t length,
                   bool row);
    void markDropped(Subscriber &subscriber);
    // The subscribers of list to group of appl (a status list: appl and
    // group empty, every one).
    static std::pair<std::vector<Subscriber>::iterator, std::vector<Subscriber>::iterator>
    subscribersOf(std::vector<Subscriber> &list, const std::string &appl, const std::string &group);
    void removeDropped(std::vector<Subscriber> &list);
    // Registers (operation 1) or withdraws (0) a subscriber of list; kind
    // names the list in the trace.
    void subscribe(std::vector<Subscriber> &list, Subscriber subscriber, int32_t operation,
                   const char *kind);
    // A status report of a lifecycle event to every status subscriber,
    // queued behind the reports that wait (sendStatusReports sends them).
    void reportStatus(int16_t requestType, const std::string &appl, const std::string &group,
                      const std::string &source, const Peer &provider);
    void releaseHandle(std::map<int32_t, OpenHandle>::iterator it);
    // Makes room for handle's latest values of group, if the values kept
    // together leave it; false (traced once a handle) when they do not.
    bool makeLatest(OpenHandle &handle, const Group &group);
    // Drops handle's latest values and what they were counted as.
    void dropLatest(OpenHandle &handle);
    // An attribute value of the row in hand, kept once the row is accepted.
    struct RowValue {
        size_t attribute;  // index in the group
        int64_t number;
        const char *text;  // into the request
        size_t length;
    };
    void updateGauges();
    // Tells the transport that peer is no subscriber any more, once it is in no list.
    void forgetPeer(const Peer &peer);
    // Counts the subscriptions of a peer, in both lists: releasePeer tells
    // the transport (when forget) once the last is gone.
    void holdPeer(const Peer &peer);
    void releasePeer(const Peer &peer, bool forget);

    // The handle open for a source, by "appl\0group\0source".
    static std::string sourceKey(const std::string &appl, const std::string &group,
                                 const std::string &source);
    // Keeps handle as open (replacing one of its number).
    void putHandle(OpenHandle handle);

    // State directory. saveChange writes a change's record before the
    // change is made: false when it could not be written, for request (the
    // caller answers 24 and changes nothing). A change no request waits for
    // (request nullptr) is made whatever happens; when its record is not
    // written, the next change writes a new snapshot first. makeRecord is
    // called only when the state is kept: without a state directory a change
    // costs no record.
    bool saveChange(const std::function<std::string()> &makeRecord, const Request *request);
    // After a change: a new snapshot when the journal has outgrown the old.
    void savedChange();
    // A new snapshot of everything held, and an empty journal after it.
    // 0 or an errno value.
    int writeSnapshot();
    std::string snapshotText(uint64_t generation) const;
    bool readSnapshot(int fd, StateLoad &load, std::string *why);
    bool replayJournal(int fd, uint64_t size, StateLoad &load, std::string *why);
    // One line of a snapshot or of a journal record.
    bool applyStateLine(const std::string &line, StateLoad &load, std::string *why);

    Transport &transport_;
    Counters counters_;
    int64_t startTime_ = static_cast<int64_t>(std::time(nullptr));
    const Handler *current_ = nullptr;  // the handler of the request in hand
    std::vector<char> reply_;
    std::vector<Peer> unsent_;         // of flushAnswers, kept for its capacity
    std::vector<RowValue> rowValues_;  // reused from row to row
    std::map<std::string, Application> applications_;
    std::map<int32_t, OpenHandle> handles_;
    int32_t nextHandle_ = 1;
    std::vector<Subscriber> dataSubscribers_;
    std::vector<Subscriber> statusSubscribers_;
    uint64_t subscriptions_ = 0;  // made so far: the next one's since
    size_t dropped_ = 0;          // marked dropped and not yet taken out
    struct PeerKey {
        uint32_t address;
        uint32_t fd;
        uint16_t port;
        bool operator==(const PeerKey &) const = default;
    };
    struct PeerKeyHash {
        size_t operator()(const PeerKey &key) const;
    };
    static PeerKey keyOf(const Peer &peer);
    std::unordered_map<PeerKey, size_t, PeerKeyHash> subscriptionsOf_;
    // A status report not yet sent to every subscriber it is for: those
    // whose since lies in [next, last].
    struct WaitingReport {
        std::string message;
        uint64_t next = 0;
        uint64_t last = 0;
    };
    std::deque<WaitingReport> waitingReports_;
    bool reportsOverdue_ = false;  // the worker was told to send them first
    std::deque<Action> actions_;
    std::deque<DeferredReport> deferred_;
    struct Network {
        uint32_t address;  // host order
        uint32_t mask;
    };
    std::vector<Network> allowed_;
    size_t maxCatalogue_ = kDefaultMaxCatalogue;
    size_t maxSubscribers_ = kDefaultMaxSubscribers;
    bool keepLatest_ = true;
    size_t latestBytes_ = 0;
    std::unordered_map<std::string, int32_t> bySource_;
    std::chrono::seconds sourceTtl_{0};
    std::unique_ptr<StateStore> state_;
};

// The trace name of a request code ("dp_online"), "unknown" for others.
const char *requestName(int code);

}  // namespace zevd::dch

#endif  // ZEVD_DCH_ZEVDCHD_H
