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

void Survey::Open() {
    for (int i = 0; i < links_.count; ++i) {
        ends_[i].link = i;
        ends_[i].native = OpenUdp(links_.link[i], 0, TQ_CLIENT_PORT);
        if (!ends_[i].native) {
            Fail(kNoRight,
                 "can't listen on UDP port %d of %s: %s. If another program holds it for itself, "
                 "end it ('ss -ulnp sport = :%d' names it)",
                 TQ_CLIENT_PORT, links_.link[i].name, strerror(errno), TQ_CLIENT_PORT);
        }
        ends_[i].kirvex = OpenUdp(links_.link[i], 0, 0);
    }
    // Without the right both stay empty, and ordinary datagrams have to do.
    packet_.reset(socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    arp_ = OpenArp();
}

void Survey::SearchFrom(int link, Address source) {
    End &end = ends_[links_.count];
    end.link = link;
    end.kirvex = OpenUdp(links_.link[link], source, 0);
}

bool Survey::Query() {
    uint8_t search[kx::kHeaderSize];
    kx::WriteSearch(search);
    char query[discovery::kPackageSize];
    const size_t size = discovery::EncodeQuery(kQueryModel, query);
    bool sent = false;
    int error = 0;
    for (int i = 0; i <= links_.count; ++i) {
        SendUdp(ends_[i].kirvex.get(), INADDR_BROADCAST, kx::kPort, search, sizeof search);
        if (i == links_.count) {
            break;
        }
        // An ordinary broadcast is heard as well as one that is built here, but can't always be
        // sent from an interface without an address.
        const Link &link = links_.link[i];
        const bool done =
            (packet_ && discovery::SendToStation(packet_.get(), link.index, kEveryStation,
                                                 TQ_SERVER_PORT, query, size) == 0) ||
            SendUdp(ends_[i].native.get(), INADDR_BROADCAST, TQ_SERVER_PORT, query, size);
        error = done ? error : errno;
        sent |= done;
        if (verbose_) {
            Complain("query on %s: %s", link.name,
                     done ? packet_ ? "sent through a packet socket" : "sent" : strerror(error));
        }
    }
    errno = error;
    return sent;
}

void Survey::Take(Unit &unit, void *context) {
    Survey &survey = *static_cast<Survey *>(context);
    unit.Place(survey.links_, survey.link_);
    const Unit *heard = survey.units_.Take(unit);
    if (heard && heard->heard == 1 && survey.verbose_ && !heard->IsWhole()) {
        Complain("an answer on %s has %d fields instead of %d", heard->interface, heard->fields,
                 kPackageFields);
    }
}

void Survey::TakeNative(int sock) {
    Datagram reply;
    if (ReceiveUdp(sock, &reply) &&
        ReadPackage(reinterpret_cast<const char *>(reply.data), reply.size, Take, this) == 0 &&
        verbose_) {
        Complain("%zu bytes on %s are no answer", reply.size, links_.link[link_].name);
    }
}

void Survey::TakeSearchReply(int sock) {
    Datagram reply;
    Unit unit;
    if (ReceiveUdp(sock, &reply) && ReadSearchReply({reply.data, reply.size}, &unit)) {
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
    // Two for each end, native and KIRVEX, and one for ARP.
    pollfd wanted[2 * (kMostLinks + 1) + 1];
    const int count = 2 * (links_.count + 1);
    for (int i = 0; i < count; ++i) {
        const End &end = ends_[i / 2];
        wanted[i] = {(i % 2 == 0 ? end.native : end.kirvex).get(), POLLIN, 0};
    }
    wanted[count] = {arp_.get(), POLLIN, 0};
    const Stopwatch watch;
    for (Milliseconds left; (left = time - watch.Passed()) > 0;) {
        if (poll(wanted, static_cast<nfds_t>(count) + 1, left) < 1) {
            continue;
        }
        for (int i = 0; i < count; ++i) {
            link_ = ends_[i / 2].link;
            if (wanted[i].revents && i % 2 == 0) {
                TakeNative(wanted[i].fd);
            } else if (wanted[i].revents) {
                TakeSearchReply(wanted[i].fd);
            }
        }
        if (wanted[count].revents) {
            TakeArp();
        }
    }
}

void Survey::HearRound(Milliseconds time) {
    units_.Clear();
    for (int i = 0; i < kQueriesInRound; ++i) {
        Query();
        Listen(time);
    }
}

void Survey::Discover(Milliseconds time) {
    const bool shown = isatty(STDERR_FILENO) && !verbose_;
    const Stopwatch watch;
    int quiet = 0;
    for (;;) {
        const Milliseconds passed = watch.Passed();
        if (time > 0 ? passed >= time
                     : passed >= kMostTime || (quiet >= kQuietRounds && passed >= kLeastTime)) {
            break;
        }
        const int before = units_.count();
        if (shown) {
            fprintf(stderr, "looking for units ... %d\r", before);
            fflush(stderr);
        }
        for (int i = 0; i < kQueriesInRound; ++i) {
            if (!Query()) {
                Fail(kNoRight,
                     "can't send on any interface: %s. An interface without an address needs one, "
                     "or the right to packet sockets: %s",
                     strerror(errno), kSetcap);
            }
            Listen(kQueryInterval);
        }
        quiet = units_.count() > before ? 0 : quiet + 1;
    }
    if (shown) {
        fputs("\033[K", stderr);
    }
    units_.Sort();
    SortOut();
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
