#include "agent/linux/forwarding/Nftables.h"

#include <nftables/libnftables.h>

#include <new>

namespace Agent::Linux {

Nftables::Nftables() : context_(nft_ctx_new(NFT_CTX_DEFAULT)) {
    if (!context_) throw std::bad_alloc();
    nft_ctx_buffer_output(context_);
    nft_ctx_buffer_error(context_);
}

Nftables::~Nftables() {
    nft_ctx_free(context_);
}

std::string Nftables::run(const std::string& commands) {
    if (nft_run_cmd_from_buffer(context_, commands.c_str()) == 0) return {};
    const std::string reason = nft_ctx_get_error_buffer(context_);
    return reason.empty() ? "no reason given" : reason;
}

std::string Nftables::list(const std::string& table) {
    nft_ctx_output_set_flags(context_, NFT_CTX_OUTPUT_STATELESS | NFT_CTX_OUTPUT_TERSE);
    if (!run("list table " + table).empty()) return {};
    return nft_ctx_get_output_buffer(context_);
}

std::string Nftables::check(const std::string& commands) {
    nft_ctx_set_dry_run(context_, true);
    const std::string reason = run(commands);
    nft_ctx_set_dry_run(context_, false);
    return reason;
}

}  // namespace Agent::Linux
