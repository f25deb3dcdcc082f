#include "ctl/survey.h"

#include <linux/if_packet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "ctl/arp.h"
#include "ctl/udp.h"
#include "discovery/announce.h"
#include "discovery/package.h"
#include "discovery/raw_broadcast.h"
#include "kirvex/packet.h"
#include "kirvex/request.h"

namespace ctl {

static constexpr Milliseconds kQueryInterval = 200;
static constexpr int kQueriesInRound = 2;
static constexpr int kQuietRounds = 2;
static constexpr Milliseconds kLeastTime = 1600;
static constexpr Milliseconds kMostTime = 5000;
static constexpr uint8_t kEveryStation[ETH_ALEN] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

// The model in whose name a query is made; units do not read it.
static constexpr char kQueryModel[] = "tqctl";

Status Survey::Open() {
    for (int i = 0; i < links_.count; ++i) {
        ends_[i].native = OpenUdp(links_.link[i], 0, TQ_CLIENT_PORT);
        if (!ends_[i].native) {
            return Fail(kNoRight,
                        "can't listen on UDP port %d of %s: %s. If another program holds it for "
                        "itself, end it ('ss -ulnp sport = :%d' names it)",
                        TQ_CLIENT_PORT, links_.link[i].name, strerror(errno), TQ_CLIENT_PORT);
        }
        ends_[i].kirvex = OpenUdp(links_.link[i], 0, 0);
    }
    // Without the right both stay empty, and ordinary datagrams have to do.
    packet_.reset(socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    arp_ = OpenArp();
    return kDone;
}

static void Search(int sock) {
    uint8_t request[kx::kHeaderSize];
    kx::WriteSearch(request);
    SendUdp(sock, INADDR_BROADCAST, kx::kPort, request, sizeof request);
}

// An ordinary broadcast is heard as well as one that is built here, but can't always be sent from
// an interface without an address.
bool Survey::QueryOn(int link) {
    char query[discovery::kPackageSize];
    const size_t size = discovery::EncodeQuery(kQueryModel, query);
    Search(ends_[link].kirvex.get());
    return (packet_ && discovery::SendToStation(packet_.get(), links_.link[link].index,
                                                kEveryStation, TQ_SERVER_PORT, query, size) == 0) ||
           SendUdp(ends_[link].native.get(), INADDR_BROADCAST, TQ_SERVER_PORT, query, size);
}

bool Survey::Query() {
    bool sent = false;
    int error = 0;
    for (int i = 0; i < links_.count; ++i) {
        const bool done = QueryOn(i);
        error = done ? error : errno;
        sent |= done;
        if (verbose_) {
            fprintf(stderr, "tqctl: query on %s: %s\n", links_.link[i].name,
                    done ? packet_ ? "sent through a packet socket" : "sent" : strerror(error));
        }
    }
    if (neighbour_) {
        Search(neighbour_.get());
    }
    errno = error;
    return sent;
}

void Survey::SearchFrom(int link, Address source) {
    neighbourLink_ = link;
    neighbour_ = OpenUdp(links_.link[link], source, 0);
}

void Survey::Take(Unit &unit, void *context) {
    Survey &survey = *static_cast<Survey *>(context);
    unit.Place(survey.links_, survey.link_);
    const Unit *heard = survey.units_.Take(unit);
    if (heard && heard->heard == 1 && survey.verbose_ && !heard->IsWhole()) {
        fprintf(stderr, "tqctl: an answer on %s has %d fields instead of %d\n", heard->interface,
                heard->fields, kPackageFields);
    }
}

void Survey::TakeNative(int link) {
    Datagram reply;
    if (!ReceiveUdp(ends_[link].native.get(), &reply)) {
        return;
    }
    link_ = link;
    const int count =
        ReadPackage(reinterpret_cast<const char *>(reply.data), reply.size, Take, this);
    if (count == 0 && verbose_) {
        fprintf(stderr, "tqctl: %zu bytes on %s are no answer\n", reply.size,
                links_.link[link].name);
    }
}

void Survey::TakeSearchReply(int sock, int link) {
    Datagram reply;
    Unit unit;
    if (ReceiveUdp(sock, &reply) && ReadSearchReply({reply.data, reply.size}, &unit)) {
        link_ = link;
        Take(unit, this);
    }
}

void Survey::TakeArp() {
    ArpPacket packet;
    if (!ReceiveArp(arp_.get(), &packet)) {
        return;
    }
    const int link = links_.Find(packet.interface);
    // Who announces or looks for an address of his own asks for no gateway.
    if (link == -1 || !packet.request || packet.sender == 0 || packet.sender == packet.target ||
        links_.link[link].Fits(packet.sender)) {
        return;
    }
    for (int i = 0; i < silentCount_; ++i) {
        if (memcmp(silent_[i].mac, packet.senderMac, ETH_ALEN) == 0) {
            return;
        }
    }
    if (silentCount_ < kMostSilent) {
        Silent &silent = silent_[silentCount_++];
        // One without a gateway takes everybody for a neighbour, and asks for this machine.
        const Address gateway = links_.link[link].Fits(packet.target) ? 0 : packet.target;
        silent = {packet.sender, gateway, {}, link};
        memcpy(silent.mac, packet.senderMac, ETH_ALEN);
    }
}

void Survey::Listen(Milliseconds time) {
    // Two for each link, and two that are none's.
    pollfd wanted[2 * kMostLinks + 2];
    const int count = 2 * links_.count;
    for (int i = 0; i < count; ++i) {
        const End &end = ends_[i / 2];
        wanted[i] = {(i % 2 == 0 ? end.native : end.kirvex).get(), POLLIN, 0};
    }
    wanted[count] = {neighbour_.get(), POLLIN, 0};
    wanted[count + 1] = {arp_.get(), POLLIN, 0};
    const Stopwatch watch;
    for (Milliseconds left; (left = time - watch.Passed()) > 0;) {
        if (poll(wanted, static_cast<nfds_t>(count) + 2, left) < 1) {
            continue;
        }
        for (int i = 0; i < count; ++i) {
            if (wanted[i].revents && i % 2 == 0) {
                TakeNative(i / 2);
            } else if (wanted[i].revents) {
                TakeSearchReply(wanted[i].fd, i / 2);
            }
        }
        if (wanted[count].revents) {
            TakeSearchReply(neighbour_.get(), neighbourLink_);
        }
        if (wanted[count + 1].revents) {
            TakeArp();
        }
    }
}

void Survey::ShowProgress() const {
    if (isatty(STDERR_FILENO) && !verbose_) {
        fprintf(stderr, "\rlooking for units ... %d", units_.count());
        fflush(stderr);
    }
}

Status Survey::Discover(Milliseconds time) {
    const Stopwatch watch;
    int quiet = 0;
    for (;;) {
        const Milliseconds passed = watch.Passed();
        if (time > 0 ? passed >= time
                     : passed >= kMostTime || (quiet >= kQuietRounds && passed >= kLeastTime)) {
            break;
        }
        ShowProgress();
        const int before = units_.count();
        for (int i = 0; i < kQueriesInRound; ++i) {
            if (!Query()) {
                return Fail(kNoRight,
                            "can't send on any interface: %s. An interface without an address "
                            "needs one, or the right to packet sockets: %s",
                            strerror(errno), kSetcap);
            }
            Listen(kQueryInterval);
        }
        quiet = units_.count() > before ? 0 : quiet + 1;
    }
    if (isatty(STDERR_FILENO) && !verbose_) {
        fputs("\r\033[K", stderr);
    }
    units_.Sort();
    SortOut();
    return kDone;
}

void Survey::SortOut() {
    int kept = 0;
    for (int i = 0; i < silentCount_; ++i) {
        bool heard = false;
        for (int k = 0; k < units_.count(); ++k) {
            heard |= memcmp(units_[k].mac, silent_[i].mac, ETH_ALEN) == 0;
        }
        if (!heard) {
            silent_[kept++] = silent_[i];
        }
    }
    silentCount_ = kept;
}

}  // namespace ctl
