/// An envelope on its way into the backend's database.
#include "Fuzzing.h"
#include "backend/store/Envelope.h"
#include "backend/store/Store.h"

using namespace vlmBackend::store;

void vlmFuzz::run(Input in) {
    static Store store(":memory:");
    static EnvelopeReader reader;
    const std::string text = textOf(in.rest());
    Envelope envelope;
    std::string reason;
    const bool readable = reader.read(text, envelope, reason);
    require(readable != envelope.messageId.empty() || !readable, "an envelope has an identifier");
    require(readable || !reason.empty(), "what is refused has a reason");
    const Received received{"vlm/fuzz", text, "", "", text.size(), 0};
    const Stored stored = store.put({&received, 1})[0];
    require(stored.outcome != Outcome::Failed, "no content makes the database refuse a transaction");
    require((stored.outcome == Outcome::Unusable) == !readable, "reader and store agree");
    const Stored again = store.put({&received, 1})[0];
    require(again.outcome == Outcome::Repeated, "a repetition is known");
    // Bounded, and each round starts alike.
    store.sql().script("DELETE FROM samples; DELETE FROM reports; DELETE FROM latest; DELETE FROM unusable");
}
