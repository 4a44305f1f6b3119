// What of a terminal's bytes is a key.
#include "EscapeSequences.h"

#include <gtest/gtest.h>

#include <string>

namespace vorrel::cli {
namespace {

struct Sequence {
    const char* bytes;
    const char* name;
};
constexpr Sequence kSequences[] = {
    {"\x1bOQ", "F2"},
    {"\x1bOR", "F3"},
    {"\x1bq", "Alt-q"},
    {"\x1b ", "Alt-space"},
    {"\x1b[A", "arrow up"},
    {"\x1b[15~", "F5"},
    {"\x1b[1;5R", "Ctrl-F3"},
    {"\x1b[[B", "F2 of the console"},
    {"\x1b[M qr", "old report of the mouse"},
    {"\x1b[M\x1bqm", "... with an ESC in it"},
    {"\x1b[<0;10;20M", "new report of the mouse, pressed"},
    {"\x1b[<0;10;20m", "... released"},
    {"\x1b[I", "focus"},
    {"\x1b\x1b[A", "Alt-arrow up"},
    {"\x1b[3\x1bOQ", "F2 after a broken sequence"},
    {"\x1b[3\xc3", "a sequence broken by a letter beyond ASCII"},
};

TEST(EscapeSequencesTest, NoneIsAKeyAndWhatStandsAroundItIs) {
    for (const Sequence& sequence : kSequences) {
        EscapeSequences filter;

        EXPECT_EQ(filter.Keys(std::string("m") + sequence.bytes + "q"), "mq") << sequence.name;

        EXPECT_FALSE(filter.Inside()) << sequence.name;
    }
}

TEST(EscapeSequencesTest, ASequenceMayComeByteByByte) {
    for (const Sequence& sequence : kSequences) {
        EscapeSequences filter;
        for (const char* byte = sequence.bytes; *byte != '\0'; ++byte) {
            EXPECT_EQ(filter.Keys(std::string(1, *byte)), "") << sequence.name;
            EXPECT_EQ(filter.Inside(), byte[1] != '\0') << sequence.name;
        }

        EXPECT_EQ(filter.Keys("q"), "q") << sequence.name;
    }
}

TEST(EscapeSequencesTest, AKeyAfterASequenceThatIsGivenUpIsAKey) {
    for (const char* begun : {"\x1b", "\x1b[", "\x1b[1;", "\x1bO", "\x1b[M ", "\x1b\x1b"}) {
        EscapeSequences filter;
        EXPECT_EQ(filter.Keys(begun), "");
        EXPECT_TRUE(filter.Inside());

        filter.GiveUp();

        EXPECT_FALSE(filter.Inside());
        EXPECT_EQ(filter.Keys("q"), "q");
    }
}

TEST(EscapeSequencesTest, KeysAndLettersBeyondAsciiPassUnchanged) {
    EscapeSequences filter;

    EXPECT_EQ(filter.Keys(" mrq[OM\xc3\xa4\n"), " mrq[OM\xc3\xa4\n");
}

}  // namespace
}  // namespace vorrel::cli
