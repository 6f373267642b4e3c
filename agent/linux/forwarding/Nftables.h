// libnftables: runs texts of nft(8) as transactions.
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

    // All of the text takes effect, or nothing. Returns the reason of a refusal, empty if it was
    // done. Blocks for the duration of the transaction, some milliseconds.
    std::string run(const std::string& text);
    // What a text that lists prints, as JSON; empty if it is refused.
    std::string list(const std::string& text);

  private:
    nft_ctx* const context_;
};

}  // namespace Agent::Linux
