#include "discovery/client.h"

#include <poll.h>
#include <strings.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "common/address.h"
#include "common/buffer.h"
#include "common/clock.h"
#include "common/owners.h"
#include "common/socket.h"
#include "discovery/announce.h"
#include "discovery/receiver.h"
#include "frame/message.h"
#include "unit/interfaces.h"

static constexpr char kSource[] = "TQ";
static constexpr int64_t kWait = 200000;  // microseconds
static constexpr int kEmptyWaits = 4;
static constexpr int kQueries = 2;
static constexpr size_t kReplySize = 4096;

// What a LAN may send before a collection ends all the same: a thousand units come near neither,
// but a sender that never pauses must not hold the server for ever, nor all of a board's memory.
static constexpr int kMostRecords = 16384;
static constexpr int64_t kLongestCollection = 5000000;  // microseconds

// A crowd of units answers all at once, while the query's own socket is still being closed; what
// the kernel's usual queue of some 200 datagrams has no room for is lost.
static constexpr int kReplyQueueSize = 4 << 20;

int TQ_Filter(const UnitInfo *record, const char *filter, uint32_t network) {
    if (filter && strcasecmp(record->proj, filter) != 0) {
        return 0;
    }
    if (network == 0) {
        return 1;
    }
    char text[sizeof record->ip + sizeof record->netmask];
    snprintf(text, sizeof text, "%s/%s", record->ip, record->netmask);
    uint32_t address;
    uint32_t mask;
    COM_ConvertNetworkAddr(text, &address, &mask);
    return (address & mask) == network ? 1 : 0;
}

int TQ_SortUnitInfo(const void *a, const void *b) {
    return -strcmp(static_cast<const UnitInfo *>(a)->mac, static_cast<const UnitInfo *>(b)->mac);
}

namespace {

// One collection: what is wanted, and what has been heard of it.
struct Collection {
    const char *filter;
    uint32_t network;
    UnitInfo **list;
    int count = 0;
    int emptyWaits = 0;

    void Listen(int sock, int64_t end);
    bool Receive(int sock);
};

}  // namespace

// Receives one datagram and appends its record when it is one to keep. Returns whether it was the
// record of a unit at all.
bool Collection::Receive(int sock) {
    char reply[kReplySize];
    const ssize_t length = recv(sock, reply, sizeof reply, MSG_DONTWAIT);
    if (length < 0) {
        return false;
    }
    UnitInfo record{};
    if (discovery::ParseReceived({reply, static_cast<size_t>(length)}, &record) !=
        TQ_PACKAGE_UNIT_INFO) {
        return false;
    }
    if (TQ_Filter(&record, filter, network) && AppendRecord(list, count, record)) {
        ++count;
    }
    return true;
}

// Without the right to a queue of any length, as long a one as the system allows has to do.
static void LengthenQueue(int sock) {
    if (setsockopt(sock, SOL_SOCKET, SO_RCVBUFFORCE, &kReplyQueueSize, sizeof kReplyQueueSize) ==
        -1) {
        setsockopt(sock, SOL_SOCKET, SO_RCVBUF, &kReplyQueueSize, sizeof kReplyQueueSize);
    }
}

// Listens until the last empty wait, or until `end`.
void Collection::Listen(int sock, int64_t end) {
    int64_t now = MonotonicMicroseconds();
    int64_t waitEnd = now + kWait;
    for (; emptyWaits < kEmptyWaits && count < kMostRecords && now < end;
         now = MonotonicMicroseconds()) {
        timeval wait{0, static_cast<suseconds_t>(std::max<int64_t>(waitEnd - now, 0))};
        const bool inTime = timerisset(&wait) && WaitForSocket(sock, POLLIN, &wait) == 1;
        emptyWaits += inTime ? 0 : 1;
        // Only a unit's record, or an empty wait, begins a wait anew: else a trickle of anything
        // could hold a collection open.
        if (!inTime || Receive(sock)) {
            waitEnd = MonotonicMicroseconds() + kWait;
        }
    }
}

int TQ_SubGetAllUnit(const char *device, UnitInfo **list, const char *filter, uint32_t network) {
    UniqueFd sock;
    sockaddr_in address{};
    if (TQ_CreateUDPBroadcastSocket(TQ_CLIENT_PORT, sock.address(), &address) == -1) {
        TQ_LOG("TQ_CreateUDPBroadcastSocket(%d) failed!\n", TQ_SERVER_PORT);
        return 0;
    }
    LengthenQueue(sock.get());
    // The empty waits are counted over both queries: the first listens until the last of them, the
    // second is sent for whoever listens next, which is the second collection.
    Collection collection{filter, network, list};
    const int64_t end = MonotonicMicroseconds() + kLongestCollection;
    for (int query = 0; query < kQueries; ++query) {
        TQ_SendPackage(device, TQ_PACKAGE_QUERY, TQ_SERVER_PORT);
        collection.Listen(sock.get(), end);
    }
    return collection.count;
}

// Appends to *list the first repeat of each MAC in a sorted array: what was heard only once is
// dropped.
static int FoldRepeats(const UnitInfo *sorted, int total, UnitInfo **list) {
    int count = 0;
    const UnitInfo *first = &sorted[0];
    bool repeated = false;
    for (int i = 1; i < total; ++i) {
        if (strcmp(sorted[i].mac, first->mac) != 0) {
            first = &sorted[i];
            repeated = false;
        } else if (!repeated) {
            repeated = true;
            count += AppendRecord(list, count, sorted[i]) ? 1 : 0;
        }
    }
    return count;
}

int TQ_GetAllUnit(const char *device, UnitInfo **list, const char *filter, uint32_t network) {
    UnitInfo *records[2] = {nullptr, nullptr};
    int counts[2];
    HeapBlock<UnitInfo> owners[2];
    int total = 0;
    for (int i = 0; i < 2; ++i) {
        counts[i] = TQ_SubGetAllUnit(device, &records[i], filter, network);
        owners[i].reset(records[i]);
        total += counts[i];
    }
    if (total == 0) {
        return -1;
    }
    const size_t size = static_cast<size_t>(total) * sizeof(UnitInfo);
    const HeapBlock<UnitInfo> merged = NewBlock<UnitInfo>(size);
    if (!merged) {
        TQ_LOG("MALLOC(%d) failed : %m\n", static_cast<int>(size));
        return -1;
    }
    UnitInfo *end = merged.get();
    for (int i = 0; i < 2; ++i) {
        if (counts[i] > 0) {
            memcpy(end, records[i], static_cast<size_t>(counts[i]) * sizeof(UnitInfo));
            end += counts[i];
        }
    }
    qsort(merged.get(), static_cast<size_t>(total), sizeof(UnitInfo), TQ_SortUnitInfo);
    return FoldRepeats(merged.get(), total, list);
}
