// Runs commands of nft(8) as transactions, by libnftables.
#pragma once

#include <string>

struct nft_ctx;

namespace Agent::Linux {

class Nftables {
  public:
    Nftables();
    ~Nftables();
    Nftables(const Nftables&) = delete;
    Nftables& operator=(const Nftables&) = delete;

    // Either all commands take effect or none. Returns the reason of a refusal, empty on success.
    // Blocks for the duration of the transaction, some milliseconds.
    std::string run(const std::string& commands);
    // The same without taking effect.
    std::string check(const std::string& commands);
    // A table such as "inet nav" as nft lists it, without the elements of its named sets and the
    // values of its counters; empty if it cannot be listed.
    std::string list(const std::string& table);

  private:
    nft_ctx* const context_;
};

}  // namespace Agent::Linux
