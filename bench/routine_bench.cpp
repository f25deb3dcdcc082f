// What the routines of every package and login cost, beside a public library's.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <array>

#include "common/base64.h"
#include "discovery/announce.h"
#include "discovery/raw_broadcast.h"
#include "net/md5.h"

namespace {

constexpr int kBlock = 12288;
constexpr int kBlockText = kBlock / 3 * 4;

std::array<unsigned char, kBlock> Bytes() {
    std::array<unsigned char, kBlock> bytes;
    unsigned next = 1;
    for (unsigned char &byte : bytes) {
        next = next * 1103515245 + 12345;
        byte = static_cast<unsigned char>(next >> 16);
    }
    return bytes;
}

void CountBytes(benchmark::State &state) {
    state.SetBytesProcessed(state.iterations() * kBlock);
}

void PackageBuild(benchmark::State &state) {
    char text[discovery::kPackageSize];
    for (auto _ : state) {
        if (TQ_CreatePackage("eth0", TQ_PACKAGE_UNIT_INFO, text, nullptr) != 0) {
            state.SkipWithError("eth0 has no address");
            return;
        }
    }
}

void PackageParse(benchmark::State &state) {
    char text[discovery::kPackageSize];
    const UnitInfo unit = {"QVR-7140-16T", "NVR",         "hall",
                           "192.168.1.21", "80",          "255.255.0.0",
                           "192.168.1.1",  "192.168.1.2", "02:00:5E:00:00:02",
                           "eth0",         "a note",      1500};
    if (TQ_CreatePackage("eth0", TQ_PACKAGE_NETWORK_SETUP, text, &unit) != 0) {
        state.SkipWithError("eth0 has no address");
        return;
    }
    for (auto _ : state) {
        UnitInfo record{};
        if (TQ_ParserPackage(text, &record) != TQ_PACKAGE_NETWORK_SETUP) {
            state.SkipWithError("not parsed");
            return;
        }
        benchmark::DoNotOptimize(record);
    }
}

void Base64Encode(benchmark::State &state) {
    const auto bytes = Bytes();
    std::array<char, kBlockText + 1> text;
    for (auto _ : state) {
        benchmark::DoNotOptimize(COM_Base64Encode(text.data(), bytes.data(), kBlock));
    }
    CountBytes(state);
}

void Base64EncodeOpenssl(benchmark::State &state) {
    const auto bytes = Bytes();
    std::array<unsigned char, kBlockText + 1> text;
    for (auto _ : state) {
        benchmark::DoNotOptimize(EVP_EncodeBlock(text.data(), bytes.data(), kBlock));
    }
    CountBytes(state);
}

void Base64Decode(benchmark::State &state) {
    auto bytes = Bytes();
    std::array<char, kBlockText + 1> text;
    COM_Base64Encode(text.data(), bytes.data(), kBlock);
    for (auto _ : state) {
        benchmark::DoNotOptimize(COM_Base64Decode(bytes.data(), text.data()));
    }
    CountBytes(state);
}

void Base64DecodeOpenssl(benchmark::State &state) {
    auto bytes = Bytes();
    std::array<unsigned char, kBlockText + 1> text;
    EVP_EncodeBlock(text.data(), bytes.data(), kBlock);
    for (auto _ : state) {
        benchmark::DoNotOptimize(EVP_DecodeBlock(bytes.data(), text.data(), kBlockText));
    }
    CountBytes(state);
}

void InternetChecksum(benchmark::State &state) {
    const auto bytes = Bytes();
    for (auto _ : state) {
        benchmark::DoNotOptimize(COM_CalRawPkgChecksum(bytes.data(), kBlock));
    }
    CountBytes(state);
}

void Md5(benchmark::State &state) {
    const auto bytes = Bytes();
    uint8_t digest[kMd5DigestSize];
    for (auto _ : state) {
        COM_MakeMD5(digest, bytes.data(), kBlock);
        benchmark::DoNotOptimize(digest);
    }
    CountBytes(state);
}

void Md5Openssl(benchmark::State &state) {
    const auto bytes = Bytes();
    uint8_t digest[EVP_MAX_MD_SIZE];
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            EVP_Digest(bytes.data(), kBlock, digest, nullptr, EVP_md5(), nullptr));
    }
    CountBytes(state);
}

BENCHMARK(PackageBuild);
BENCHMARK(PackageParse);
BENCHMARK(Base64Encode);
BENCHMARK(Base64EncodeOpenssl);
BENCHMARK(Base64Decode);
BENCHMARK(Base64DecodeOpenssl);
BENCHMARK(InternetChecksum);
BENCHMARK(Md5);
BENCHMARK(Md5Openssl);

}  // namespace
