/// A file of the spool. An accepted one is written the same.
#include "Fuzzing.h"
#include "backend/SpoolFile.h"

void vlmFuzz::run(Input in) {
    // The first byte chooses whether the checksum is the input's or the right one.
    const bool isGiven = (in.byte() & 1) != 0;
    std::string content = textOf(in.rest());
    kyo::orx::SpooledEnvelope envelope;
    std::string error;
    if (!isGiven && content.size() > kyo::orx::kSpoolHeaderBytes) {
        envelope.messageId = content.substr(0, static_cast<unsigned char>(content[0]) % 64);
        envelope.payload = content.substr(envelope.messageId.size());
        envelope.encoding = kyo::orx::Encoding::Zstd;
        content = writeSpoolFile(envelope);
        require(readSpoolFile(content, envelope, error), "what is written is read");
    }
    if (!readSpoolFile(content, envelope, error)) {
        require(!error.empty(), "what is refused has a reason");
        return;
    }
    require(writeSpoolFile(envelope) == content, "what is read is written the same");
}
