#include "tools/check/Suggest.h"

#include <algorithm>
#include <cctype>
#include <utility>

namespace vlmCheck {

namespace {

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

}  // namespace

std::size_t editDistance(const std::string& leftText, const std::string& rightText) {
    const std::string left = lower(leftText);
    const std::string right = lower(rightText);
    // Three rows of the distance table: before the previous, previous, current.
    std::vector<std::size_t> before(right.size() + 1), previous(right.size() + 1), current(right.size() + 1);
    for (std::size_t j = 0; j <= right.size(); ++j) {
        previous[j] = j;
    }
    for (std::size_t i = 1; i <= left.size(); ++i) {
        current[0] = i;
        for (std::size_t j = 1; j <= right.size(); ++j) {
            const std::size_t replaced = previous[j - 1] + (left[i - 1] == right[j - 1] ? 0 : 1);
            current[j] = std::min({replaced, previous[j] + 1, current[j - 1] + 1});
            if (i > 1 && j > 1 && left[i - 1] == right[j - 2] && left[i - 2] == right[j - 1]) {
                current[j] = std::min(current[j], before[j - 2] + 1);
            }
        }
        std::swap(before, previous);
        std::swap(previous, current);
    }
    return previous[right.size()];
}

std::string nearest(const std::string& text, const std::vector<std::string>& known) {
    constexpr std::size_t longest = 200;  // no name is that long
    if (text.empty() || text.size() > longest) {
        return {};
    }
    std::string best;
    std::size_t bestDistance = 1 + std::max<std::size_t>(1, text.size() / 3);
    for (const auto& candidate : known) {
        const std::size_t distance = candidate.size() > longest ? longest : editDistance(text, candidate);
        if (distance < bestDistance && distance < text.size()) {
            bestDistance = distance;
            best = candidate;
        }
    }
    if (!best.empty()) {
        return best;
    }
    // Not a typing error; perhaps a longer or shorter form of a name ("GNSSProxy", "door").
    const std::string wanted = lower(text);
    for (const auto& candidate : known) {
        const std::string name = lower(candidate);
        const bool inside = name.size() >= 3 && wanted.find(name) != std::string::npos;
        const bool around = wanted.size() >= 3 && name.find(wanted) != std::string::npos;
        if ((inside || around) && candidate.size() > best.size()) {
            best = candidate;
        }
    }
    return best;
}

std::string didYouMean(const std::string& text, const std::vector<std::string>& known) {
    const std::string name = nearest(text, known);
    return name.empty() ? std::string() : "did you mean \"" + name + "\"?";
}

std::string listed(const std::vector<std::string>& names) {
    constexpr std::size_t most = 12;
    std::string result;
    for (std::size_t i = 0; i < names.size() && i < most; ++i) {
        result += (i == 0 ? "" : ", ") + names[i];
    }
    if (names.size() > most) {
        result += ", ... (" + std::to_string(names.size()) + " in all)";
    }
    return result;
}

}  // namespace vlmCheck
