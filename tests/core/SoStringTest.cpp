#include "scriptobjects/core/SoString.h"

#include <random>
#include <thread>

using ScObjects::EncodeUTF8;
using ScObjects::SoString;

namespace {

std::string text(const SoString& string) {
    return std::string(string.view());
}

TEST(SoString, takesBuffersInStepsOf128) {
    const std::tuple<int32_t, int32_t, int32_t> cases[] = {
        {0, 128, 0},     {1, 128, 0},     {39, 128, 0},    {40, 128, 128},
        {127, 128, 128}, {128, 256, 256}, {255, 256, 256}, {256, 384, 384}};
    for (const auto& [length, capacity, heapBytes] : cases) {
        SCOPED_TRACE(length);
        const std::string bytes(static_cast<size_t>(length), 'x');
        SoString string(bytes.c_str());
        EXPECT_EQ(string.length(), length);
        EXPECT_EQ(string.capacity(), capacity);
        EXPECT_EQ(string.heapBytes(), heapBytes) << "short ones take none";
        EXPECT_EQ(SoString(string).capacity(), capacity);
    }
    SoString full(std::string(127, 'x').c_str());
    full.append('y');
    EXPECT_EQ(full.capacity(), 256);
    full.shrink(0);
    EXPECT_EQ(SoString(full).capacity(), 128) << "a copy is sized by its own length";
}

TEST(SoString, takesNullAndLengthsAsTheyCome) {
    EXPECT_EQ(text(SoString(static_cast<const char*>(nullptr))), "");
    EXPECT_EQ(text(SoString("", 0)), "");
    EXPECT_EQ(text(SoString(std::string_view())), "") << "its data is null";
    EXPECT_EQ(text(SoString("abc", 2)), "ab");
    EXPECT_EQ(text(SoString("a\0b", 3)), std::string("a\0b", 3));
    EXPECT_EQ(SoString('\0').length(), 1);
    SoString string("abc");
    string.append(static_cast<const char*>(nullptr));
    EXPECT_EQ(text(string), "abc");
    EXPECT_STREQ(string.assign(nullptr), "");
    EXPECT_EQ(string.compare(static_cast<const char*>(nullptr)), 0);
}

TEST(SoString, survivesTextsOfItsOwn) {
    SoString string("0123456789");
    string.append(string.c_str() + 5);
    EXPECT_EQ(text(string), "012345678956789");
    for (int i = 0; i < 5; ++i) {
        string << string; // across a change of buffers
    }
    EXPECT_EQ(string.length(), 15 * 32);
    string.assign(string.view().substr(1, 3));
    EXPECT_EQ(text(string), "123");
    SoString& same = string;
    string = same;
    EXPECT_EQ(text(string), "123");
    const SoString moved(std::move(string));
    EXPECT_EQ(text(moved), "123");
    ASSERT_NE(string.c_str(), nullptr); // NOLINT(bugprone-use-after-move): that is the promise
    EXPECT_STREQ(string.c_str(), "");
}

TEST(SoString, ordersByUnsignedBytes) {
    EXPECT_LT(SoString("a").compare("\xC3\x84"), 0);
    EXPECT_GT(SoString("ab").compare("a"), 0);
    EXPECT_TRUE(SoString("Z") < SoString("a"));
    EXPECT_FALSE(SoString("a") < SoString("a"));
}

TEST(SoString, writesNumbersAsUnsigned32BitDecimals) {
    SoString string;
    string << 7 << ',' << -1 << ',' << 4294967295U << ',' << -1L << ',' << 12UL;
    EXPECT_EQ(text(string), "7,4294967295,4294967295,4294967295,12");
    const std::pair<double, const char*> cases[] = {
        {2.5, "2"}, {3.5, "4"}, {-0.4, "-0"}, {1e15, "1000000000000000"}};
    for (const auto& [value, expected] : cases) {
        SoString number;
        number << value;
        EXPECT_EQ(text(number), expected);
    }
    SoString huge;
    huge << 1.7976931348623157e308;
    EXPECT_EQ(huge.length(), 309);
}

TEST(SoString, lowersOnlyUpToTheFirstZeroByte) {
    EXPECT_EQ(text(SoString("aB\0cD", 5).lowercase()), std::string("ab\0cD", 5));
    EXPECT_EQ(text(SoString("aB\xC3\x84").uppercase()), "AB\xC3\x84");
}

// Copies are made by two threads at once, as the counting of a buffer's strings begins.
TEST(SoString, sharesTheBufferOfALongTextUntilEitherChanges) {
    std::string bytes(100'000, 'A');
    for (size_t i = 0; i < bytes.size(); i += 7) {
        bytes[i] = 'b';
    }
    const std::pair<const char*, std::function<void(SoString&)>> changes[] = {
        {"append", [](SoString& string) { string << 'x'; }},
        {"append itself", [](SoString& string) { string << string; }},
        {"assign", [](SoString& string) { string.assign(string.view().substr(1, 50'000)); }},
        {"assign a short one", [](SoString& string) { string.assign("x"); }},
        {"shrink", [](SoString& string) { string.shrink(99'999); }},
        {"cut", [](SoString& string) { string.cut(1, 70'000); }},
        {"lower", [](SoString& string) { string.makeLowercase(); }},
        {"write", [](SoString& string) { *(string.extend(0) - 100'000) = 'x'; }},
        {"move and append",
         [](SoString& string) {
             SoString other(std::move(string));
             (string = std::move(other)) << 'x';
         }},
        {"upper", [](SoString& string) { string = string.uppercase(); }},
        {"copy", [](SoString& string) { string = SoString(std::string(99'999, 'A')); }},
    };
    for (const auto& [name, change] : changes) {
        SCOPED_TRACE(name);
        SoString expected(bytes);
        change(expected);
        auto first = std::make_unique<SoString>(bytes);
        std::unique_ptr<SoString> copies[2];
        const auto copy = [&](int i) { copies[i] = std::make_unique<SoString>(*first); };
        std::thread other(copy, 0);
        copy(1);
        other.join();
        EXPECT_EQ(copies[0]->c_str(), first->c_str());
        EXPECT_EQ(copies[1]->c_str(), first->c_str());
        EXPECT_EQ(copies[1]->heapBytes(), first->heapBytes()) << "each says what it holds";
        std::thread changing([&, &change = change] { change(*copies[0]); });
        change(*first);
        changing.join();
        EXPECT_TRUE(first->view() == expected.view());
        EXPECT_TRUE(copies[0]->view() == expected.view());
        EXPECT_TRUE(copies[1]->view() == bytes);
        const char* const last = copies[1]->c_str();
        first.reset();
        copies[0].reset();
        *(copies[1]->extend(0) - 100'000) = 'y';
        EXPECT_EQ(copies[1]->c_str(), last) << "the only one that is left";
    }
    SoString cut(bytes);
    cut.shrink(20'000);
    EXPECT_NE(SoString(cut).c_str(), cut.c_str()) << "it would keep the whole buffer";
}

TEST(SoString, behavesLikeAModelStringUnderRandomChanges) {
    const unsigned seed = std::random_device()();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const auto below = [&random](unsigned n) { return static_cast<int32_t>(random() % n); };
    SoString string;
    std::string model;
    for (int i = 0; i < 20'000; ++i) {
        // Half of them about as long as what lies in the object.
        const std::string piece(static_cast<size_t>(below(random() % 2 == 0 ? 200 : 50)),
                                static_cast<char>('a' + below(26)));
        switch (below(8)) {
        case 0:
            string.append(piece);
            model += piece;
            break;
        case 1:
            string << 'c';
            model += 'c';
            break;
        case 2: {
            const int32_t n = below(600) - 10;
            string.shrink(n);
            if (n >= 0 && n < static_cast<int32_t>(model.size())) {
                model.resize(static_cast<size_t>(n));
            }
            break;
        }
        case 3:
            string.assign(piece.c_str());
            model = piece;
            break;
        case 4: {
            SoString other(std::move(string));
            ASSERT_STREQ(string.c_str(), ""); // NOLINT(bugprone-use-after-move): the promise
            string.append(piece);
            std::swap(string, other);
            ASSERT_EQ(text(other), piece);
            break;
        }
        case 5: {
            SoString other(piece);
            string = std::move(other);
            ASSERT_STREQ(other.c_str(), ""); // NOLINT(bugprone-use-after-move): the promise
            other.append('x');
            model = piece;
            break;
        }
        case 6: {
            const int32_t start = below(static_cast<unsigned>(model.size()) + 1);
            const int32_t length =
                below(static_cast<unsigned>(model.size()) + 1 - static_cast<unsigned>(start));
            string.cut(start, length);
            model = model.substr(static_cast<size_t>(start), static_cast<size_t>(length));
            break;
        }
        default:
            string = SoString(string);
        }
        ASSERT_EQ(text(string), model);
        ASSERT_EQ(string.c_str()[model.size()], '\0');
        ASSERT_GT(string.capacity(), string.length());
        ASSERT_EQ(string.capacity() % 128, 0);
        if (model.size() > 5000) {
            string.shrink(0);
            model.clear();
        }
    }
}

TEST(SoString, encodesUtf16) {
    using Units = std::vector<unsigned short>;
    const std::tuple<Units, int32_t, const char*, const char*> cases[] = {
        {{'a', 'b', 0}, -1, "ab", "up to the zero unit"},
        {{0xD83D, 0xDE00, 0}, -1, "\xF0\x9F\x98\x80", "a pair"},
        {{0xD800, 0}, -1, "\xED\xA0\x80", "a lone surrogate"},
        {{0xDC00, 0xD800, 0}, -1, "\xED\xB0\x80\xED\xA0\x80", "a pair the wrong way round"},
        {{0xD83D, 0xDE00}, 1, "\xED\xA0\xBD", "a pair that the length cuts"},
        {{'a', 'b', 'c', 0}, 2, "ab", "a length before the zero unit"},
        {{0x7FF, 0x800, 0}, -1, "\xDF\xBF\xE0\xA0\x80", "two and three bytes"},
        {{0}, 0, "", "nothing"},
    };
    for (const auto& [units, length, expected, why] : cases) {
        SCOPED_TRACE(why);
        EXPECT_EQ(text(SoString(units.data(), length)), expected);
    }
    EXPECT_EQ(text(SoString(static_cast<const unsigned short*>(nullptr))), "");
    const Units endless(70'000, 'x');
    EXPECT_EQ(SoString(endless.data()).length(), 65'536);
}

TEST(SoString, encodesTheLongFormsOfUtf8) {
    const std::pair<uint32_t, std::string> cases[] = {
        {0x1FFFFF, "\xF7\xBF\xBF\xBF"},      {0x200000, "\xF8\x88\x80\x80\x80"},
        {0x3FFFFFF, "\xFB\xBF\xBF\xBF\xBF"}, {0x7FFFFFFE, "\xFD\xBF\xBF\xBF\xBF\xBE"},
        {0x7FFFFFFF, "\xEF\xBF\xBD"},        {0xFFFFFFFF, "\xEF\xBF\xBD"}};
    for (const auto& [codePoint, expected] : cases) {
        SCOPED_TRACE(codePoint);
        char out[6];
        const int32_t bytes = EncodeUTF8(codePoint, out);
        EXPECT_EQ(std::string(out, static_cast<size_t>(bytes)), expected);
    }
}

TEST(SoString, decodesUtf8WithoutLeavingTheBuffers) {
    constexpr unsigned short kGuard = 0xABCD;
    const std::tuple<std::string, uint32_t, std::vector<unsigned short>, const char*> cases[] = {
        {"ab", 3, {'a', 'b', 0}, "text and its end"},
        {"ab", 2, {'a', 'b'}, "no step left for the end"},
        {"ab", 0, {}, "no step at all"},
        {"\xF0\x9F\x98\x80", 2, {0xD83D, 0xDE00, 0}, "a pair is one step"},
        {"a\x80", 4, {'a', 0xFFFD, 0xFFFD, 0xFFFD}, "a stray byte uses up the steps"},
        {"a\xE2\x82", 4, {'a', 0xFFFD, 0}, "a sequence that the end cuts off"},
        {"\xFC", 2, {0xFFFD, 0}, "six bytes announced, one there"},
        {"\xF7\xBF\xBF\xBF", 2, {0xFFFD, 0}, "beyond Unicode"},
        {"\xE2zz!", 3, {0x2EBA, '!', 0}, "continuation bytes are not validated"},
        {std::string("a\0b", 3), 4, {'a', 0}, "a zero byte ends the text"},
    };
    for (const auto& [bytes, steps, expected, why] : cases) {
        SCOPED_TRACE(why);
        const SoString string(bytes);
        std::vector<unsigned short> out(2 * steps + 1, kGuard);
        string.convertToUtf16(out.data(), steps);
        for (size_t i = 0; i < out.size(); ++i) {
            EXPECT_EQ(out[i], i < expected.size() ? expected[i] : kGuard) << "unit " << i;
        }
    }
}

TEST(SoString, writesAsManyUtf16UnitsAsItSays) {
    EXPECT_EQ(SoString("a\xF0\x9F\x98\x80").utf16Units(), 4);
    EXPECT_EQ(SoString("").utf16Units(), 1);
    const unsigned seed = std::random_device()();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    for (int i = 0; i < 20'000; ++i) {
        std::string bytes(random() % 12, '\0');
        for (char& c : bytes) {
            c = static_cast<char>(random() % 2 == 0 ? 0x80 | random() % 0x40 : random());
        }
        if (!bytes.empty() && (bytes[0] & 0xC0) == 0x80) {
            bytes[0] = '\xE2'; // a stray byte in front would be all that is tried
        }
        const SoString string(bytes);
        // A unit that keeps two different marks was not written.
        std::vector<unsigned short> first(2 * bytes.size() + 4, 0x1111);
        std::vector<unsigned short> second(first.size(), 0x2222);
        string.convertToUtf16(first.data(), static_cast<uint32_t>(bytes.size() + 1));
        string.convertToUtf16(second.data(), static_cast<uint32_t>(bytes.size() + 1));
        for (size_t k = 0; k < first.size(); ++k) {
            ASSERT_EQ(first[k] == second[k], static_cast<int32_t>(k) < string.utf16Units()) << k;
        }
    }
}

} // namespace
