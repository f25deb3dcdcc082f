// The least that answering can cost: for each datagram on a UDP port, send datagrams that were made beforehand.
//     floor PORT udp HEX...            by sendto() to the asker
//     floor PORT packet DEVICE HEX...  IPv4 packets to the Ethernet broadcast address of a device
#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

int main(int argc, char **argv) {
    static unsigned char datagrams[4][2048];
    char request[16384];
    if (argc < 4 || argc > 8) return 2;
    int packet = strcmp(argv[2], "packet") == 0, first = packet ? 4 : 3, count = argc - first;
    size_t sizes[4];
    for (int i = 0; i < count && i < 4; ++i) {
        sizes[i] = strlen(argv[first + i]) / 2;
        for (size_t j = 0; j < sizes[i] && j < sizeof datagrams[i]; ++j)
            sscanf(argv[first + i] + 2 * j, "%2hhx", &datagrams[i][j]);
    }
    struct sockaddr_in own = {.sin_family = AF_INET, .sin_port = htons((unsigned short)atoi(argv[1]))};
    struct sockaddr_ll link = {.sll_family = AF_PACKET, .sll_protocol = htons(ETH_P_IP), .sll_halen = ETH_ALEN};
    int in = socket(AF_INET, SOCK_DGRAM, 0), out = in;
    if (packet) {
        link.sll_ifindex = (int)if_nametoindex(argv[3]);
        memset(link.sll_addr, 0xFF, ETH_ALEN);
        out = socket(AF_PACKET, SOCK_DGRAM, 0);
    }
    if (out < 0 || bind(in, (struct sockaddr *)&own, sizeof own) < 0) return 1;
    for (;;) {
        struct sockaddr_in asker;
        socklen_t size = sizeof asker;
        if (recvfrom(in, request, sizeof request, 0, (struct sockaddr *)&asker, &size) < 0) continue;
        for (int i = 0; i < count && i < 4; ++i) {
            if (packet) sendto(out, datagrams[i], sizes[i], 0, (struct sockaddr *)&link, sizeof link);
            else sendto(out, datagrams[i], sizes[i], 0, (struct sockaddr *)&asker, size);
        }
    }
}
