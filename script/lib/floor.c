// The least that answering can cost: for each datagram on a UDP port, fetch facts and send datagrams that were
// made beforehand.
//     floor PORT DEVICE FACTS HEX...
// DEVICE: send IPv4 packets to its Ethernet broadcast address; "-" sends to the asker. FACTS, joined by commas, or
// "-" for none: "/..." is a file that is read, one of the kernel's network tables from a descriptor that stays
// open, "name" the host name, a number an interface request for eth0.
#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

static void fetch(const char *fact, int sock) {
    char text[4096];
    static const char table_folder[] = "/proc/net/";
    if (!strncmp(fact, table_folder, strlen(table_folder))) {
        static int tables[128];
        int *table = &tables[fact[strlen(table_folder)] & 127];
        if (!*table) *table = open(fact, O_RDONLY | O_CLOEXEC);
        if (pread(*table, text, sizeof text, 0) < 0) exit(1);
    } else if (*fact == '/') {
        int file = open(fact, O_RDONLY | O_CLOEXEC);
        if (file < 0 || read(file, text, sizeof text) < 0) exit(1);
        close(file);
    } else if (*fact == 'n') {
        if (gethostname(text, sizeof text) < 0) exit(1);
    } else {
        struct ifreq request;
        memset(&request, 0, sizeof request);
        memcpy(request.ifr_name, "eth0", 5);
        if (ioctl(sock, strtoul(fact, NULL, 0), &request) < 0) exit(1);
    }
}

int main(int argc, char **argv) {
    static unsigned char datagrams[4][2048];
    static char request[16384];
    const char *facts[32];
    size_t sizes[4];
    int fact_count = 0, count = argc - 4, packet = argc > 2 && *argv[2] != '-';
    if (count < 1 || count > 4) return 2;
    for (char *next = strtok(argv[3], ",-"); next && fact_count < 32; next = strtok(NULL, ",")) facts[fact_count++] = next;
    for (int i = 0; i < count; ++i) {
        sizes[i] = strlen(argv[4 + i]) / 2;
        for (size_t j = 0; j < sizes[i] && j < sizeof datagrams[i]; ++j)
            sscanf(argv[4 + i] + 2 * j, "%2hhx", &datagrams[i][j]);
    }
    struct sockaddr_in own = {.sin_family = AF_INET, .sin_port = htons((unsigned short)atoi(argv[1]))};
    struct sockaddr_ll link = {.sll_family = AF_PACKET, .sll_protocol = htons(ETH_P_IP), .sll_halen = ETH_ALEN};
    int in = socket(AF_INET, SOCK_DGRAM, 0), out = in;
    if (packet) {
        link.sll_ifindex = (int)if_nametoindex(argv[2]);
        memset(link.sll_addr, 0xFF, ETH_ALEN);
        out = socket(AF_PACKET, SOCK_DGRAM, 0);
    }
    if (out < 0 || bind(in, (struct sockaddr *)&own, sizeof own) < 0) return 1;
    for (;;) {
        struct sockaddr_in asker;
        socklen_t size = sizeof asker;
        if (recvfrom(in, request, sizeof request, 0, (struct sockaddr *)&asker, &size) < 0) continue;
        for (int i = 0; i < fact_count; ++i) fetch(facts[i], in);
        for (int i = 0; i < count; ++i) {
            if (packet) sendto(out, datagrams[i], sizes[i], 0, (struct sockaddr *)&link, sizeof link);
            else sendto(out, datagrams[i], sizes[i], 0, (struct sockaddr *)&asker, size);
        }
    }
}
