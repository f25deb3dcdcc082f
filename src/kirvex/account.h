// The KIRVEX operations on accounts: user verification and the change of name and password.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

#include "common/base64.h"
#include "kirvex/packet.h"

// The Base64 fields that a request's body begins with, decoded into areas that lie back to back.
// A field without a terminator reads on into what follows it in the request, a value that fills its
// area into the next area; behind the last there is a zero byte.
template <size_t kCount>
class DecodedCredentials {
  public:
    static constexpr size_t kAreaSize = 48;

    // `request` has kx::kReceiveSize bytes.
    explicit DecodedCredentials(const uint8_t *request) {
        const char *text = reinterpret_cast<const char *>(request);
        for (size_t i = 0; i < kCount; ++i) {
            const size_t field = kx::kCredentials + i * kx::kCredentialSize;
            DecodeBase64(text_ + i * kAreaSize, kAreaSize, text + field, kx::kReceiveSize - field);
        }
    }
    const char *operator[](size_t i) const { return text_ + i * kAreaSize; }

  private:
    char text_[kCount * kAreaSize + 1] = {};
};

// Whether an account name counts as the administrator's: it begins with "admin".
bool IsAdministrator(const char *account);

// Both operations read `request` to kx::kReceiveSize bytes where its fields have no end.

// Tells `sender` what privilege an account has, judged by its name alone. Returns 0, or -1 when the
// reply could not be sent.
int KIRVEX_Reply_UserVerification(const char *device, int sock, const sockaddr_in &sender,
                                  const uint8_t *request);

// Changes the password of the web server's first account and tells `sender` what came of it.
// Returns 0, or -1 when the reply could not be sent.
int KIRVEX_Reply_ChangeIDPwd(const char *device, int sock, const sockaddr_in &sender,
                             const uint8_t *request);

// 0 when every character of an account name (of a password: a digit) is allowed, else -1.
int KIRVEX_CheckAccout(const char *text);
int KIRVEX_CheckPasswd(const char *text);
