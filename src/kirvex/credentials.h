// The accounts that requests carry: two or four Base64 fields at the start of the body.
#pragma once

#include "common/base64.h"
#include "kirvex/packet.h"

namespace kx {

// An account in clear text; both texts are zero-terminated and belong to the caller.
struct Account {
    const char *name;
    const char *password;
};

constexpr Field CredentialField(size_t number) {
    return {kCredentials + number * kCredentialSize, kCredentialSize};
}

// The fields, decoded into areas that lie back to back. A field without a terminator reads on into
// what follows it in the request, a value that fills its area into the next area; behind the last
// there is a zero byte.
template <size_t kCount>
class DecodedCredentials {
  public:
    static constexpr size_t kAreaSize = 48;

    explicit DecodedCredentials(Request request) {
        const char *text = reinterpret_cast<const char *>(request.data());
        for (size_t i = 0; i < kCount; ++i) {
            const size_t start = CredentialField(i).offset;
            DecodeBase64(text_ + i * kAreaSize, kAreaSize, text + start, request.size() - start);
        }
    }
    const char *operator[](size_t i) const { return text_ + i * kAreaSize; }
    // The account whose name is the text of this number.
    Account At(size_t i) const { return {(*this)[i], (*this)[i + 1]}; }

  private:
    char text_[kCount * kAreaSize + 1] = {};
};

// Whether an account name counts as the administrator's: it begins with "admin".
bool IsAdministrator(const char *name);

}  // namespace kx
