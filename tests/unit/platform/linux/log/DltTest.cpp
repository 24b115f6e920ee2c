#include "log/DltSink.h"

#include "tests/support/Test.h"

TEST(DltPieces, AreCutBetweenCharactersWhereThereAreSome) {
    using ara::log::pieceLength;
    const std::string text = "abc\xC3\xBC\xF0\x9F\x9A\x97";
    EXPECT_EQ(pieceLength(text, 10), text.size());
    const std::size_t expected[] = {1, 2, 3, 3, 5, 5, 5, 5, 9};
    for (std::size_t limit = 1; limit <= 9; ++limit) {
        EXPECT_EQ(pieceLength(text, limit), expected[limit - 1]) << limit;
    }
    EXPECT_EQ(pieceLength("\x80\x80\x80\x80\x80\x80\x80\x80", 5), 5u);  // no UTF-8: still advances
    EXPECT_EQ(pieceLength("\xC3\xBC\xC3\xBC", 1), 1u);
}
