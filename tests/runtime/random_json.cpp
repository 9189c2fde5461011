#include "runtime/random_json.h"

#include <cstdint>
#include <iterator>
#include <string_view>

namespace qm::runtime::test {

std::string randomText(std::mt19937_64& random) {
    static constexpr std::string_view kPieces[] = {"a",
                                                   "Z",
                                                   "0",
                                                   " ",
                                                   "/",
                                                   "\"",
                                                   "\\",
                                                   "\n",
                                                   "\t",
                                                   "\b",
                                                   "\f",
                                                   "\r",
                                                   "\x01",
                                                   "\x1b",
                                                   "\x1f",
                                                   "\x7f",
                                                   "é",
                                                   "整理",
                                                   "\xF0\x9F\x98\x80",
                                                   "\u07FF",
                                                   "\uFFFD",
                                                   "\uD7FF",
                                                   "\U0010FFFF",
                                                   "plain text"};
    std::string text;
    for (auto count = random() % 12; count > 0; --count)
        text += kPieces[random() % std::size(kPieces)];
    return text;
}

json randomNumber(std::mt19937_64& random) {
    switch (random() % 6) {
        case 0:
            return random();
        case 1:
            return static_cast<std::int64_t>(random());
        case 2:
            return static_cast<std::int64_t>(random() % 2001) - 1000;
        case 3:
            return static_cast<double>(random() % 1000) / 8;
        case 4:
            return -1e-7 * static_cast<double>(random() % 1000);
        default:
            return 1e17 * static_cast<double>(random() % 1000);
    }
}

json randomJson(std::mt19937_64& random, std::size_t depth) {
    const auto kind = random() % (depth > 0 ? 8 : 5);
    if (kind == 0) return nullptr;
    if (kind == 1) return random() % 2 == 0;
    if (kind == 2) return randomNumber(random);
    if (kind < 5) return randomText(random);
    json value = kind < 6 ? json::array() : json::object();
    for (auto count = random() % 5; count > 0; --count) {
        if (value.is_array()) {
            value.push_back(randomJson(random, depth - 1));
        } else {
            value[randomText(random)] = randomJson(random, depth - 1);
        }
    }
    return value;
}

}  // namespace qm::runtime::test
