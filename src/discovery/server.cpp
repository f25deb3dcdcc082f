#include "discovery/server.h"

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "common/base64.h"
#include "common/buffer.h"
#include "common/owners.h"
#include "common/pause.h"
#include "common/socket.h"
#include "config/network_setup.h"
#include "config/process.h"
#include "discovery/announce.h"
#include "discovery/client.h"
#include "discovery/receiver.h"
#include "frame/message.h"

static constexpr char kSource[] = "TQ";
static constexpr MessageOrigin kOrigin{kSource, "TQ_Server_MORA"};

// A list request always reports this unit as it is on its first interface.
static constexpr char kListDevice[] = "eth0";

// How long a TCP client may keep the server waiting, for its request and again for its reading.
static constexpr int kClientSeconds = 5;

// The longest request that is read.
static constexpr size_t kMessageSize = 16384;

namespace {

// A reply to a list request: Base64 text, or nothing when there was no memory.
struct ListReply {
    HeapBlock<char> text;
    size_t length = 0;
};

class NativeServer {
  public:
    NativeServer(const char *device, TQ_Cfg *cfg) : device_(device), cfg_(cfg) {}

    void OpenListener();
    void OpenUdpSocket();
    void ServeNext();

  private:
    bool ServeConnection();
    void AnswerListRequest(int connection);
    void ServeDatagram();
    void AnswerListRequest(const sockaddr_in &asker);
    void SetUpNetwork(const UnitInfo &package);
    int Parse(ssize_t length, UnitInfo *package) {
        return discovery::ParseReceived({message_, static_cast<size_t>(length)}, package);
    }

    const char *device_;
    TQ_Cfg *cfg_;
    UniqueFd listener_;
    UniqueFd udp_;
    // This unit on the interface that a setup package names. It is zeroed only here: every filling
    // after the first appends the identity files' texts once more, so only the first setup package
    // that gets so far can match (of a unit with such files). A second one needs a restart, and
    // tools count on that.
    UnitInfo own_{};
    char message_[kMessageSize];
};

}  // namespace

void NativeServer::OpenListener() {
    UniqueFd sock(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!sock) {
        TQ_LOG_FOR(kOrigin, "Create TCP/IP ERROR : %s\n", strerror(errno));
        return;
    }
    TQ_LOG_FOR(kOrigin, "CREATE TCP/IP SOCKET\n");
    const sockaddr_in address = InternetAddress(INADDR_ANY, TQ_SERVER_PORT);
    if (bind(sock.get(), AsSockaddr(address), sizeof address) == -1) {
        TQ_LOG_FOR(kOrigin, "bind error() : %s\n", strerror(errno));
        return;
    }
    if (listen(sock.get(), 0) == -1) {
        TQ_LOG_FOR(kOrigin, "listen() error : %s\n", strerror(errno));
        return;
    }
    TQ_LOG_FOR(kOrigin, "Listen TCP/IP (fd = %d)\n", sock.get());
    listener_ = static_cast<UniqueFd &&>(sock);
}

void NativeServer::OpenUdpSocket() {
    sockaddr_in address{};
    if (TQ_CreateUDPBroadcastSocket(TQ_SERVER_PORT, udp_.address(), &address) == -1) {
        TQ_LOG_FOR(kOrigin, "TQ_CreateUDPRecvAnyAddrSocket(%d) failed!\n", TQ_SERVER_PORT);
        udp_.reset();
        return;
    }
    TQ_LOG_FOR(kOrigin, "Create UDP Socket (fd = %d)\n", udp_.get());
}

// A socket that is missing never becomes readable: poll passes over a negative descriptor.
void NativeServer::ServeNext() {
    pollfd sockets[] = {{listener_.get(), POLLIN, 0}, {udp_.get(), POLLIN, 0}};
    if (poll(sockets, 2, -1) < 1) {
        return;
    }
    if (sockets[0].revents != 0 && ServeConnection()) {
        return;
    }
    if (sockets[1].revents != 0) {
        ServeDatagram();
    }
}

// Appends the own record to the list and encodes the texts of all. The list grows by one.
static ListReply BuildListReply(UnitInfo **list, int count, const UnitInfo &own) {
    ListReply reply;
    if (!AppendRecord(list, count, own)) {
        return reply;
    }
    const size_t records = static_cast<size_t>(count) + 1;
    const HeapBlock<char> texts = ZeroedBlock(records * discovery::kUnitTextSize);
    if (!texts) {
        return reply;
    }
    size_t length = 0;
    for (size_t i = 0; i < records; ++i) {
        length += discovery::WriteUnitText(TQ_PACKAGE_UNIT_INFO, (*list)[i], texts.get() + length);
    }
    reply.text = ZeroedBlock(Base64TextSize(length));
    if (reply.text) {
        reply.length = discovery::EncodeTexts({texts.get(), length}, reply.text.get());
    }
    return reply;
}

// Discovers the LAN and builds the reply. Returns an empty one, with a message, when nobody is
// there; `logCount` reports how many are.
static ListReply DiscoverForList(void (*logCount)(int count)) {
    UnitInfo own{};
    COM_GetUnitInfo(&own, kListDevice);
    UnitInfo *list = nullptr;
    const int count = TQ_GetAllUnit(nullptr, &list, nullptr, 0);
    ListReply reply;
    if (count < 1) {
        TQ_LOG_FOR(kOrigin, "No devices found (%d)\n", count);
    } else {
        logCount(count);
        reply = BuildListReply(&list, count, own);
    }
    free(list);
    return reply;
}

// Sends all of a reply. A client that does not read is given up once the waits for it have come to
// kClientSeconds.
static void SendAll(int connection, const ListReply &reply) {
    timeval limit{kClientSeconds, 0};
    const char *next = reply.text.get();
    size_t left = reply.length;
    while (left > 0) {
        ssize_t sent = -1;
        const int ready = WaitForSocket(connection, POLLOUT, &limit);
        if (ready == 0) {
            errno = EAGAIN;
        } else if (ready > 0) {
            sent = send(connection, next, left, MSG_NOSIGNAL | MSG_DONTWAIT);
        }
        if (sent < 0) {
            TQ_LOG_FOR(kOrigin, "send(%d) error : %s\n", static_cast<int>(left), strerror(errno));
            return;
        }
        next += sent;
        left -= static_cast<size_t>(sent);
    }
}

void NativeServer::AnswerListRequest(int connection) {
    TQ_LOG_FOR(kOrigin, "Client used TCP/IP function to connect server\n");
    SendAll(connection, DiscoverForList([](int count) {
                TQ_LOG_FOR(kOrigin, "result_device = %d(not include me)\n", count);
            }));
}

// Returns false when there was no connection to be had.
bool NativeServer::ServeConnection() {
    const UniqueFd connection(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!connection) {
        // Out of descriptors or memory, the connection stays in the queue and the listener
        // readable.
        static constexpr timespec kPause{0, 10000000};
        COM_TakeABreak(kPause, 1000);
        return false;
    }
    COM_SetSocketTimeout(connection.get(), kClientSeconds);
    const ssize_t length = recv(connection.get(), message_, sizeof message_, MSG_NOSIGNAL);
    if (length < 0) {
        TQ_LOG_FOR(kOrigin, "recv() error : %s\n", strerror(errno));
    }
    if (length < 1) {
        return true;
    }
    UnitInfo request{};
    if (Parse(length, &request) == TQ_PACKAGE_LIST_REQUEST) {
        AnswerListRequest(connection.get());
    }
    return true;
}

void NativeServer::AnswerListRequest(const sockaddr_in &asker) {
    TQ_LOG_FOR(kOrigin, "Client used UDP function to connect server\n");
    const ListReply reply =
        DiscoverForList([](int count) { TQ_LOG_FOR(kOrigin, "result_device = %d\n", count); });
    if (reply.length == 0) {
        return;
    }
    const UniqueFd sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!sock) {
        TQ_LOG_FOR(kOrigin, "socket(SOCK_DGRAM) failed : %s\n", strerror(errno));
        return;
    }
    const sockaddr_in client = InternetAddress(asker.sin_addr.s_addr, TQ_CLIENT_PORT);
    const ssize_t sent =
        sendto(sock.get(), reply.text.get(), reply.length, 0, AsSockaddr(client), sizeof client);
    if (sent == -1) {
        TQ_LOG_FOR(kOrigin, "sendto() error : %s\n", strerror(errno));
    } else {
        TQ_LOG_FOR(kOrigin, "len = %d\n", static_cast<int>(sent));
    }
}

void NativeServer::SetUpNetwork(const UnitInfo &package) {
    TQ_LOG_FOR(kOrigin, "UDP - TQ_PACKAGE_NETWORK_SETUP [%s]\n", package.note);
    COM_GetUnitInfo(&own_, package.dev);
    if (TQ_CheckUnitInfo(&own_, &package) == 0) {
        TQ_SetupNetwork(cfg_, &package);
    }
}

void NativeServer::ServeDatagram() {
    sockaddr_in asker{};
    socklen_t size = sizeof asker;
    const ssize_t length = recvfrom(udp_.get(), message_, sizeof message_, MSG_NOSIGNAL,
                                    reinterpret_cast<sockaddr *>(&asker), &size);
    if (length < 0) {
        TQ_LOG_FOR(kOrigin, "recvfrom() failed! : %s\n", strerror(errno));
        return;
    }
    UnitInfo package{};
    switch (Parse(length, &package)) {
        case TQ_PACKAGE_QUERY:
            TQ_SendPackage(device_, TQ_PACKAGE_UNIT_INFO, TQ_CLIENT_PORT);
            break;
        case TQ_PACKAGE_LIST_REQUEST:
            AnswerListRequest(asker);
            break;
        case TQ_PACKAGE_NETWORK_SETUP:
            if (cfg_->netsetup != 0) {
                SetUpNetwork(package);
            }
            break;
        default:
            break;
    }
}

void TQ_Server_MORA(const char *pidFile, const char *device, TQ_Cfg *cfg) {
    TQ_ParsetCfg(cfg);
    NativeServer server(device, cfg);
    server.OpenListener();
    COM_SavePid(pidFile ? pidFile : kDefaultPidFile);
    server.OpenUdpSocket();
    while (true) {
        server.ServeNext();
    }
}

int TQ_CheckUnitInfo(const UnitInfo *own, const UnitInfo *package) {
    if (!own || !package) {
        return -1;
    }
    static constexpr std::array<size_t, 6> kIdentity = {
        offsetof(UnitInfo, model), offsetof(UnitInfo, proj),         offsetof(UnitInfo, name),
        offsetof(UnitInfo, mac),   offsetof(UnitInfo, trigger_port), offsetof(UnitInfo, dev)};
    for (const size_t offset : kIdentity) {
        // A record that has grown runs on from field to field; it ends where the record ends.
        const char *ownText = reinterpret_cast<const char *>(own) + offset;
        const char *packageText = reinterpret_cast<const char *>(package) + offset;
        if (strncmp(ownText, packageText, sizeof(UnitInfo) - offset) != 0) {
            return -1;
        }
    }
    return 0;
}
