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

  private:
    nft_ctx* const context_;
};

}  // namespace Agent::Linux
