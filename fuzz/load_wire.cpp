// load_wire.cpp -- fuzz target for the load test's message handling on
// arbitrary bytes: the fake server's answer to a Relay-Forward (relay header,
// Relay-Message and Interface-ID walk, the relayed client message) and the
// clients' check of an answer (type, transaction id, Client Identifier).
//
// Each routine gets a heap copy of exactly the input's size, so a read past
// it stops the run; an answer built must lie inside its buffer and carry the
// Relay-Forward's hop-count, addresses and transaction id.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "../bench/load_wire.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto in = std::make_unique<uint8_t[]>(size == 0 ? 1 : size);
    if (size) std::memcpy(in.get(), data, size);
    const qor::ByteView msg(in.get(), size);

    loadwire::ClientMsg client;
    if (loadwire::parseClientMsg(msg, client) &&
        (client.clientId.data() < msg.data() || client.clientId.data() + client.clientId.size() > msg.data() + size))
        std::abort();

    // Small output buffers too, so the fits checks are exercised.
    for (size_t outSize : {size_t(0), size_t(40), size_t(300), size_t(2048)}) {
        auto out = std::make_unique<uint8_t[]>(outSize == 0 ? 1 : outSize);
        const qor::MutByteView outView(out.get(), outSize);
        const uint8_t serverId[4] = {0, 3, 0, 1};
        const size_t len = loadwire::answerRelayForward(msg, outView, qor::ByteView(serverId, 4));
        if (len == 0) continue;
        if (len > outSize || out[0] != loadwire::kRelayRepl || out[1] != in[1] ||
            std::memcmp(out.get() + 2, in.get() + 2, 32) != 0)
            std::abort();
        loadwire::RelayView reply;
        loadwire::ClientMsg inner;
        if (!loadwire::parseRelay(qor::ByteView(out.get(), len), loadwire::kRelayRepl, reply) ||
            !loadwire::parseClientMsg(reply.relayMsg, inner) || inner.type != loadwire::kReply)
            std::abort();
    }
    return 0;
}
