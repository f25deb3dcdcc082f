#include "ctl/temporary_address.h"

#include <arpa/inet.h>
#include <linux/if_addr.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ctl/stop.h"

namespace ctl {

namespace {

constexpr uint32_t kLongestSeconds = 600;

struct AddressAttribute {
    rtattr header{sizeof(AddressAttribute), IFA_LOCAL};
    in_addr_t address = 0;
};

struct LifetimeAttribute {
    rtattr header{sizeof(LifetimeAttribute), IFA_CACHEINFO};
    ifa_cacheinfo lifetime{kLongestSeconds, kLongestSeconds, 0, 0};
};

struct AddressRequest {
    nlmsghdr header{sizeof(AddressRequest), RTM_DELADDR, NLM_F_REQUEST | NLM_F_ACK, 0, 0};
    // A narrower scope would put it before the interface's own address, as the source of all else.
    ifaddrmsg interface { AF_INET, 0, 0, RT_SCOPE_UNIVERSE, 0 };
    AddressAttribute local;
    LifetimeAttribute lifetime;
};

struct Answer {
    nlmsghdr header;
    nlmsgerr error;
};

}  // namespace

// What removes the address, once it is there.
static AddressRequest removal;
static int kernel;

// Sends a request and reads the kernel's answer. Returns false with errno set when it says no.
static bool Request(const AddressRequest &request) {
    char bytes[1024];
    Answer answer;
    if (sendto(kernel, &request, sizeof request, 0, nullptr, 0) == -1 ||
        read(kernel, bytes, sizeof bytes) < static_cast<ssize_t>(sizeof answer)) {
        return false;
    }
    memcpy(&answer, bytes, sizeof answer);
    errno = -answer.error.error;
    return answer.header.nlmsg_type == NLMSG_ERROR && answer.error.error == 0;
}

static void Remove() {
    if (!Request(removal)) {
        __extension__ Say("the temporary address %s is still there: %m",
                          ToText(ntohl(removal.local.address)).text);
    }
}

void AddTemporaryAddress(const Link &link, Address address, int prefix) {
    kernel = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    removal.interface.ifa_prefixlen = static_cast<uint8_t>(prefix);
    removal.interface.ifa_index = static_cast<unsigned>(link.index);
    removal.local.address = htonl(address);
    // Told beforehand: a signal that comes first removes an address that is not there.
    SendWhenStopped(kernel, &removal, sizeof removal);
    AddressRequest addition = removal;
    addition.header.nlmsg_type = RTM_NEWADDR;
    addition.header.nlmsg_flags |= NLM_F_CREATE | NLM_F_EXCL;
    if (!Request(addition)) {
        __extension__ Fail(
            kNoRight, "can't give %s the temporary address %s/%d: %m. That takes root, or once: %s",
            link.name, ToText(address).text, prefix, kSetcap);
    }
    AtEnd(Remove);
}

}  // namespace ctl
