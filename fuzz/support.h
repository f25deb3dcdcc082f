// What the fuzz targets share: files, and peers that act while the program waits for them.
//
// The sockets and files are real ones of a private host (tests/support/sandbox). A target runs in
// one thread all the same: its peers do their part when the program is about to wait, in
// gBeforeWait, so that nothing ever waits for long and every input has one outcome. Pauses take no
// time, no process can be made (EAGAIN), and no signal is sent.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>
#include <poll.h>
#include <setjmp.h>

#include <cstdint>
#include <functional>
#include <string>

#include "common/owners.h"

using Input = FuzzedDataProvider;

// The next text of an input: everything up to "\|", in which "\\" stands for one backslash. Numbers
// are taken from an input's end.
inline std::string NextText(Input &input) {
    return input.ConsumeRandomLengthString();
}

void WriteFile(const char *path, const std::string &bytes);

// Puts a file or folder of the target's own in the place of one under /proc.
void ReplaceInProc(const char *procPath, const char *path);

// What a wait comes to after the peers did their part.
enum class Wait { kGoOn, kTimeOut };

// Called with the descriptors of each wait; `forever` tells one without a time limit.
extern std::function<Wait(pollfd *sockets, nfds_t count, bool forever)> gBeforeWait;

// Runs a server until its hook calls LeaveServer, which closes the given sockets of the server's.
template <class Server>
void RunServer(Server serve) {
    extern jmp_buf gServerExit;
    if (setjmp(gServerExit) == 0) {
        serve();
    }
}
[[noreturn]] void LeaveServer(pollfd *sockets, nfds_t count);

// Lets one wait end in vain, after which a server closes what it keeps between requests, and leaves
// it at the next.
Wait LeaveServerAtRest(pollfd *sockets, nfds_t count);

// Sockets at 127.0.0.1.
UniqueFd UdpSocket();
void SendDatagram(const UniqueFd &sock, uint16_t port, const std::string &bytes);
UniqueFd Connect(uint16_t port);
void SendAndEnd(const UniqueFd &sock, const std::string &bytes);
UniqueFd ConnectAndSend(uint16_t port, const std::string &bytes);

// What has come in, until nothing more is there.
std::string Drain(int sock);

// The package of a plain text: inverted and in Base64. A text that begins with "!" is sent as it
// stands behind that.
std::string Package(std::string text);

// A web server whose every block is the next text of an input. An empty text closes the connection,
// "~" lets a wait end in vain.
class WebServer {
  public:
    explicit WebServer(uint16_t port);
    void Restart() { peer_.reset(); }
    Wait Serve(Input &input);

  private:
    UniqueFd listener_;
    UniqueFd peer_;
};

// Fails the run when something that always holds does not.
inline void Require(bool holds) {
    if (!holds) {
        __builtin_trap();
    }
}
