#include "ctl/temporary_address.h"

#include <arpa/inet.h>
#include <linux/if_addr.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
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
    nlmsghdr header{};
    ifaddrmsg interface {};
    AddressAttribute local;
    LifetimeAttribute lifetime;
};

struct Answer {
    nlmsghdr header;
    nlmsgerr error;
};

}  // namespace

static AddressRequest MakeRequest(bool add, int interface, Address address, int prefix) {
    AddressRequest request;
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = add ? RTM_NEWADDR : RTM_DELADDR;
    request.header.nlmsg_flags =
        static_cast<uint16_t>(NLM_F_REQUEST | NLM_F_ACK | (add ? NLM_F_CREATE | NLM_F_EXCL : 0));
    request.interface.ifa_family = AF_INET;
    request.interface.ifa_prefixlen = static_cast<uint8_t>(prefix);
    // A narrower scope would put it before the interface's own address, as the source of all else.
    request.interface.ifa_scope = RT_SCOPE_UNIVERSE;
    request.interface.ifa_index = static_cast<unsigned>(interface);
    request.local.address = htonl(address);
    return request;
}

// Sends the request and reads the kernel's answer. Returns false with errno set when it says no.
bool TemporaryAddress::Request(bool add) {
    const AddressRequest request = MakeRequest(add, interface_, address_, prefix_);
    char bytes[1024];
    Answer answer;
    if (send(sock_.get(), &request, sizeof request, 0) == -1 ||
        recv(sock_.get(), bytes, sizeof bytes, 0) < static_cast<ssize_t>(sizeof answer)) {
        return false;
    }
    memcpy(&answer, bytes, sizeof answer);
    errno = -answer.error.error;
    return answer.header.nlmsg_type == NLMSG_ERROR && answer.error.error == 0;
}

static TemporaryAddress *added;

void TemporaryAddress::Add(const Link &link, Address address, int prefix) {
    sock_.reset(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    interface_ = link.index;
    address_ = address;
    prefix_ = prefix;
    // Told beforehand: a signal that comes first removes an address that is not there.
    const AddressRequest removal = MakeRequest(false, interface_, address, prefix);
    SendWhenStopped(sock_.get(), &removal, sizeof removal);
    if (!Request(true)) {
        Fail(kNoRight,
             "can't give %s the temporary address %s/%d: %s. That takes root, or once: %s",
             link.name, ToText(address).text, prefix, strerror(errno), kSetcap);
    }
    added = this;
    atexit([] { added->Remove(); });
}

void TemporaryAddress::Remove() {
    if (!Request(false)) {
        Complain("the temporary address %s/%d is still there: %s", ToText(address_).text, prefix_,
                 strerror(errno));
    }
}

}  // namespace ctl
