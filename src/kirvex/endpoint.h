// The UDP end of the KIRVEX protocol: its sockets, and replies on their way to the requester.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

#include "frame/message.h"
#include "kirvex/packet.h"

namespace kx {

// Opens a UDP socket that is tied to an interface, for broadcasts too if wanted. Returns false with
// a message on failure; *sock may be open all the same.
[[nodiscard]] bool OpenSocket(int *sock, const char *device, bool broadcast, MessageOrigin origin);

// Gives the replies that wait for the hardware addresses of their requesters as much room as the
// system allows, up to 4 MB: requests from stations that don't exist must not leave others without.
void WidenSendBuffer(int sock);

// Whether what is sent to `peer` through an interface goes to a whole subnet.
[[nodiscard]] bool IsBroadcast(const char *device, const sockaddr_in &peer);

// Sends a packet, without waiting for room. Returns 0, or -1 with a message.
int SendPacket(int sock, const sockaddr_in &peer, std::span<const uint8_t> packet,
               MessageOrigin origin);

// A reply in the making.
struct Reply {
    uint8_t packet[kSearchReplySize];
    size_t size;

    void Set(Field field, uint32_t value) { WriteInteger(packet, field, value); }
    void Set(Field field, const char *text) { WriteText(packet, field, text); }
    int Send(int sock, const sockaddr_in &peer, MessageOrigin origin) const {
        return SendPacket(sock, peer, std::span(packet).first(size), origin);
    }
};

// A reply of `size` bytes to `request`, zeroed behind its header, with return code 0 and the MAC
// and address of the interface as they are now. Interface requests go through `sock`, so that a
// unit without a descriptor to spare still knows who it is.
Reply StartReply(const char *device, int sock, Request request, size_t size);

}  // namespace kx
