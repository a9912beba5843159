// cli_answers.cpp -- fuzz target for what dhcpv6-cli reads from outside: the
// answers of the configuration store and the ACL manager (byte 0 even: a
// running-config piece asked for at the offset in bytes 1-4; odd: the ACL
// table), and command lines (byte 0 = 2: the rest is a line, as a replayed
// startup-config gives it). Whatever the length words say, a decoded piece
// lies inside the answer and inside the text it claims to be part of.
#include "../cli/CliParse.h"
#include "harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 5) return 0;
    if (data[0] == 2) {
        CliParsed p;
        std::string err;
        const int rc = cliParseLine(std::string_view(reinterpret_cast<const char*>(data + 1), size - 1), size & 1, p, err);
        fz::check((rc != 0) == !err.empty(), "a refusal without a reason, or a reason for an accepted line");
        return 0;
    }
    const uint32_t offset = qor::u32At(qor::ByteView(data + 1, 4), 0);
    const std::vector<uint8_t> answer(data + 5, data + size);  // its own allocation: ASan sees its end
    if (data[0] % 2 == 0) {
        CliShowPiece piece;
        if (!cliDecodeShowPiece(answer, offset, piece)) return 0;
        const auto* first = reinterpret_cast<const char*>(answer.data());
        fz::check(piece.text.data() >= first && piece.text.data() + piece.text.size() <= first + answer.size(),
                  "a piece outside its answer");
        fz::check(offset <= piece.total && piece.text.size() <= piece.total - offset, "a piece past its text");
    } else {
        std::vector<CliAclTrap> traps;
        if (cliDecodeAclShow(answer, traps))
            fz::check(CLI_ACL_OFF_PAIRS + traps.size() * CLI_ACL_PAIR_LEN <= answer.size(), "more pairs than bytes");
    }
    return 0;
}
