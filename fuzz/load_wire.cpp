// load_wire.cpp -- fuzz target for the load test's messages: the fake server's answer to a Relay-Forward and the
// clients' check of an answer, on a copy of exactly the input's size. An answer must fit its buffer, carry the
// Relay-Forward's hop-count and addresses, and read back as a Reply.
#include "../bench/load_wire.h"
#include "harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using fz::check;
    auto in = fz::exactCopy(data, size);
    const qor::ByteView msg(in.get(), size);
    loadwire::ClientMsg client, inner;
    check(!loadwire::parseClientMsg(msg, client) ||
              fz::inside(client.clientId.data(), client.clientId.size(), in.get(), size),
          "Client Identifier outside the message");
    for (size_t outSize : {size_t(0), size_t(40), size_t(300), size_t(2048)}) {  // small ones too
        auto out = std::make_unique<uint8_t[]>(outSize + 1);
        const uint8_t serverId[4] = {0, 3, 0, 1};
        const size_t len = loadwire::answerRelayForward(msg, {out.get(), outSize}, qor::ByteView(serverId, 4));
        loadwire::RelayView reply;
        check(len == 0 || (len <= outSize && out[0] == loadwire::kRelayRepl && out[1] == in[1] &&
                           std::memcmp(out.get() + 2, in.get() + 2, 32) == 0 &&
                           loadwire::parseRelay({out.get(), len}, loadwire::kRelayRepl, reply) &&
                           loadwire::parseClientMsg(reply.relayMsg, inner) && inner.type == loadwire::kReply),
              "an answer past its buffer, not to this Relay-Forward or not a Reply");
    }
    return 0;
}
