#include "ctl/survey.h"

#include <linux/if_packet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "ctl/arp.h"
#include "ctl/text.h"
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

void Survey::AddEar(UniqueFd sock, Protocol protocol, const Link *link) {
    Ear &ear = ears_[earCount_++];
    ear.sock = std::move(sock);
    ear.protocol = protocol;
    ear.link = link;
}

void Survey::Open() {
    for (const Link &link : links_) {
        UniqueFd native = OpenUdp(link, 0, TQ_CLIENT_PORT);
        if (!native) {
            __extension__ Fail(
                kNoRight,
                "can't listen on UDP port %d of %s: %m. Does another program hold it? 'ss -ulnp "
                "sport = :%d' names it",
                TQ_CLIENT_PORT, link.name, TQ_CLIENT_PORT);
        }
        AddEar(std::move(native), Protocol::kNative, &link);
    }
    for (const Link &link : links_) {
        SearchFrom(link, 0);
    }
    // Without the right both stay empty, and ordinary datagrams have to do.
    packet_.reset(socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    AddEar(OpenArp(), Protocol::kArp, nullptr);
}

void Survey::SearchFrom(const Link &link, Address source) {
    AddEar(OpenUdp(link, source, 0), Protocol::kKirvex, &link);
}

bool Survey::Query() {
    uint8_t search[kx::kHeaderSize];
    kx::WriteSearch(search);
    char query[discovery::kPackageSize];
    const size_t size = discovery::EncodeQuery(kQueryModel, query);
    bool sent = false;
    int error = 0;
    for (int i = 0; i < earCount_; ++i) {
        const Ear &ear = ears_[i];
        if (ear.protocol == Protocol::kKirvex) {
            SendUdp(ear.sock.get(), INADDR_BROADCAST, kx::kPort, search, sizeof search);
        }
        if (ear.protocol != Protocol::kNative) {
            continue;
        }
        // An ordinary broadcast is heard as well as one that is built here, but can't always be
        // sent from an interface without an address.
        const bool done =
            (packet_ && discovery::SendToStation(packet_.get(), ear.link->index, kEveryStation,
                                                 TQ_SERVER_PORT, query, size) == 0) ||
            SendUdp(ear.sock.get(), INADDR_BROADCAST, TQ_SERVER_PORT, query, size);
        error = done ? error : errno;
        sent |= done;
        if (verbose_) {
            __extension__ Say(!done     ? "query on %s: %m"
                              : packet_ ? "query on %s, through a packet socket"
                                        : "query on %s",
                              ear.link->name);
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
        Say("an answer on %s has %d fields instead of %d", heard->interface, heard->fields,
            kPackageFields);
    }
}

void Survey::TakeReply(const Ear &ear) {
    Datagram reply;
    if (!ReceiveUdp(ear.sock.get(), &reply)) {
        return;
    }
    Unit unit;
    if (ear.protocol == Protocol::kKirvex) {
        if (ReadSearchReply({reply.data, reply.size}, &unit)) {
            Take(unit, this);
        }
    } else if (ReadPackage(reinterpret_cast<const char *>(reply.data), reply.size, Take, this) ==
                   0 &&
               verbose_) {
        Say("%zu bytes on %s are no answer", reply.size, ear.link->name);
    }
}

void Survey::TakeArp(int sock) {
    ArpPacket packet;
    if (!ReceiveArp(sock, &packet)) {
        return;
    }
    const Link *link = links_.Find(packet.interface);
    // Who announces or looks for an address of his own asks for no gateway.
    if (!link || !packet.request || packet.sender == 0 || packet.sender == packet.target ||
        link->Fits(packet.sender)) {
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
        const Address gateway = link->Fits(packet.target) ? 0 : packet.target;
        silent = {packet.sender, gateway, {}, link};
        memcpy(silent.mac, packet.senderMac, ETH_ALEN);
    }
}

void Survey::Listen(Milliseconds time) {
    pollfd wanted[kMostEars];
    for (int i = 0; i < earCount_; ++i) {
        wanted[i] = {ears_[i].sock.get(), POLLIN, 0};
    }
    const Stopwatch watch;
    for (Milliseconds left; (left = time - watch.Passed()) > 0;) {
        const int ready = poll(wanted, static_cast<nfds_t>(earCount_), left);
        for (int i = 0; ready > 0 && i < earCount_; ++i) {
            const Ear &ear = ears_[i];
            link_ = ear.link;
            if (wanted[i].revents == 0) {
                continue;
            }
            if (ear.protocol == Protocol::kArp) {
                TakeArp(ear.sock.get());
            } else {
                TakeReply(ear);
            }
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
    const bool shown = !verbose_ && TerminalColumns(STDERR_FILENO) >= 0;
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
            dprintf(STDERR_FILENO, "looking for units ... %d\r", before);
        }
        for (int i = 0; i < kQueriesInRound; ++i) {
            if (!Query()) {
                __extension__ Fail(
                    kNoRight,
                    "can't send on any interface: %m. Without an address that takes the right to "
                    "packet sockets: %s",
                    kSetcap);
            }
            Listen(kQueryInterval);
        }
        quiet = units_.count() > before ? 0 : quiet + 1;
    }
    if (shown) {
        dprintf(STDERR_FILENO, "\033[K");
    }
    units_.Sort();
    SortOut();
}

void Survey::SortOut() {
    int kept = 0;
    for (int i = 0; i < silentCount_; ++i) {
        bool heard = false;
        for (const Unit &unit : units_) {
            heard |= memcmp(unit.mac, silent_[i].mac, ETH_ALEN) == 0;
        }
        if (!heard) {
            silent_[kept++] = silent_[i];
        }
    }
    silentCount_ = kept;
}

}  // namespace ctl
