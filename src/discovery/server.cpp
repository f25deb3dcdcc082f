#include "discovery/server.h"

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <utility>

#include "common/owners.h"
#include "common/pause.h"
#include "common/socket.h"
#include "common/text_file.h"
#include "config/network_setup.h"
#include "config/process.h"
#include "discovery/announce.h"
#include "discovery/connections.h"
#include "discovery/list_reply.h"
#include "discovery/receiver.h"
#include "frame/message.h"

static constexpr char kSource[] = "TQ";
static constexpr MessageOrigin kOrigin = TQ_ORIGIN("TQ_Server_MORA");

// How long a TCP client may keep the server waiting for its reading.
static constexpr int kClientSeconds = 5;

// The longest request that is read.
static constexpr size_t kMessageSize = 16384;

// What an interface that is not there, or that has no hardware address, says of itself.
static constexpr char kNoMac[] = "00:00:00:00:00:00";

using discovery::ListReply;
using discovery::WaitingConnections;

namespace {

class NativeServer {
  public:
    NativeServer(const char *device, TQ_Cfg *cfg) : device_(device), cfg_(cfg) {}

    void OpenListener();
    void OpenUdpSocket();
    void ServeNext();

  private:
    // Milliseconds until the time of a connection, or of what is kept, is over; -1 without either.
    int Patience() const;
    UniqueFd Accept();
    void ServeConnection(UniqueFd connection);
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
    WaitingConnections waiting_;
    // What answers go out through, for as long as queries keep coming: none waits for the kernel to
    // close it, which takes milliseconds.
    UniqueFd packetSocket_;
    KeptTables tables_;
    // This unit on the interface that a setup package names. It is zeroed only here: every filling
    // after the first appends the identity files' texts once more, so only the first setup package
    // that gets so far can match (of a unit with such files). A second one needs a restart, and
    // tools count on that.
    UnitInfo own_{};
    // Static, so that no more of it is memory than a message has filled.
    static inline char message_[kMessageSize];
};

}  // namespace

void NativeServer::OpenListener() {
    UniqueFd sock(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!sock) {
        TQ_LOG_FOR(kOrigin, "Create TCP/IP ERROR : %m\n");
        return;
    }
    TQ_LOG_FOR(kOrigin, "CREATE TCP/IP SOCKET\n");
    if (!BindWhenFree(sock.get(), InternetAddress(INADDR_ANY, TQ_SERVER_PORT))) {
        TQ_LOG_FOR(kOrigin, "bind error() : %m\n");
        return;
    }
    if (listen(sock.get(), 0) == -1) {
        TQ_LOG_FOR(kOrigin, "listen() error : %m\n");
        return;
    }
    TQ_LOG_FOR(kOrigin, "Listen TCP/IP (fd = %d)\n", sock.get());
    listener_ = std::move(sock);
}

void NativeServer::OpenUdpSocket() {
    sockaddr_in address{};
    if (TQ_CreateUDPBroadcastSocket(TQ_SERVER_PORT, udp_.address(), &address) == -1) {
        TQ_LOG_FOR(kOrigin, "TQ_CreateUDPRecvAnyAddrSocket(%d) failed!\n", TQ_SERVER_PORT);
        udp_.reset();
        return;
    }
    KeepPortToOneself(udp_.get());
    TQ_LOG_FOR(kOrigin, "Create UDP Socket (fd = %d)\n", udp_.get());
}

int NativeServer::Patience() const {
    const int keep = packetSocket_ || tables_ ? KeptTables::kSeconds * 1000 : -1;
    const int left = waiting_.TimeLeft();
    return keep < 0 || (left >= 0 && left < keep) ? left : keep;
}

// A socket that is missing never becomes readable: poll passes over a negative descriptor.
void NativeServer::ServeNext() {
    std::array<pollfd, 2 + WaitingConnections::kMost> sockets;
    const WaitingConnections::PollSet waiting(&sockets[2], WaitingConnections::kMost);
    sockets[0] = {listener_.get(), POLLIN, 0};
    sockets[1] = {udp_.get(), POLLIN, 0};
    const size_t watched = waiting_.Watch(waiting);
    const int ready = poll(sockets.data(), 2 + watched, Patience());
    if (ready == 0) {
        packetSocket_.reset();
        tables_.Close();
    }
    if (ready == -1) {
        return;
    }
    UniqueFd connection;
    if (watched > 0) {
        waiting_.DropOverdue(waiting);
        connection = waiting_.TakeReady(waiting);
    }
    if (!connection && sockets[0].revents != 0) {
        connection = Accept();
    }
    const bool served = static_cast<bool>(connection);
    if (served) {
        ServeConnection(std::move(connection));
    }
    // Each connection is followed by one datagram, which may have come in meanwhile: nobody's
    // connections, however many, keep the others' datagrams waiting.
    if (sockets[1].revents != 0 || (served && udp_)) {
        ServeDatagram();
    }
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
            sent = send(connection, next, left, MSG_NOSIGNAL);
        }
        if (sent < 0) {
            TQ_LOG_FOR(kOrigin, "send(%d) error : %m\n", static_cast<int>(left));
            return;
        }
        next += sent;
        left -= static_cast<size_t>(sent);
    }
}

void NativeServer::AnswerListRequest(int connection) {
    TQ_LOG_FOR(kOrigin, "Client used TCP/IP function to connect server\n");
    SendAll(connection, discovery::DiscoverForList([](int count) {
                TQ_LOG_FOR(kOrigin, "result_device = %d(not include me)\n", count);
            }));
}

UniqueFd NativeServer::Accept() {
    UniqueFd connection(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!connection) {
        // Out of descriptors or memory, the connection stays in the queue and the listener
        // readable.
        static constexpr timespec kPause{0, 10000000};
        COM_TakeABreak(kPause, 1000);
    }
    return connection;
}

// One read is all of a request. Before that, the connection waits with the others.
void NativeServer::ServeConnection(UniqueFd connection) {
    const ssize_t length = recv(connection.get(), message_, sizeof message_, MSG_NOSIGNAL);
    if (length < 0 && errno == EAGAIN) {
        waiting_.Add(std::move(connection));
        return;
    }
    if (length < 0) {
        TQ_LOG_FOR(kOrigin, "recv() error : %m\n");
    }
    if (length < 1) {
        return;
    }
    UnitInfo request{};
    if (Parse(length, &request) == TQ_PACKAGE_LIST_REQUEST) {
        AnswerListRequest(connection.get());
    }
}

void NativeServer::AnswerListRequest(const sockaddr_in &asker) {
    TQ_LOG_FOR(kOrigin, "Client used UDP function to connect server\n");
    const ListReply reply = discovery::DiscoverForList(
        [](int count) { TQ_LOG_FOR(kOrigin, "result_device = %d\n", count); });
    if (reply.length == 0) {
        return;
    }
    const UniqueFd sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!sock) {
        TQ_LOG_FOR(kOrigin, "socket(SOCK_DGRAM) failed : %m\n");
        return;
    }
    const sockaddr_in client = InternetAddress(asker.sin_addr.s_addr, TQ_CLIENT_PORT);
    const ssize_t sent =
        sendto(sock.get(), reply.text.get(), reply.length, 0, AsSockaddr(client), sizeof client);
    if (sent == -1) {
        TQ_LOG_FOR(kOrigin, "sendto() error : %m\n");
    } else {
        TQ_LOG_FOR(kOrigin, "len = %d\n", static_cast<int>(sent));
    }
}

void NativeServer::SetUpNetwork(const UnitInfo &package) {
    TQ_LOG_FOR(kOrigin, "UDP - TQ_PACKAGE_NETWORK_SETUP [%s]\n", package.note);
    COM_GetUnitInfo(&own_, package.dev);
    // Zeros for a hardware address name no unit, but anybody can write them into a package, with a
    // dev that begins every stanza's.
    if (strcmp(own_.mac, kNoMac) != 0 && TQ_CheckUnitInfo(&own_, &package) == 0) {
        TQ_SetupNetwork(cfg_, &package);
    }
}

void NativeServer::ServeDatagram() {
    sockaddr_in asker{};
    socklen_t size = sizeof asker;
    const ssize_t length =
        recvfrom(udp_.get(), message_, sizeof message_, MSG_NOSIGNAL | MSG_DONTWAIT,
                 reinterpret_cast<sockaddr *>(&asker), &size);
    if (length < 0) {
        if (errno != EAGAIN) {
            TQ_LOG_FOR(kOrigin, "recvfrom() failed! : %m\n");
        }
        return;
    }
    UnitInfo package{};
    switch (Parse(length, &package)) {
        case TQ_PACKAGE_QUERY:
            discovery::SendPackageThrough(&packetSocket_, udp_.get(), device_, TQ_PACKAGE_UNIT_INFO,
                                          TQ_CLIENT_PORT);
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
    COM_SavePid(pidFile ? pidFile : config::kDefaultPidFile);
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
