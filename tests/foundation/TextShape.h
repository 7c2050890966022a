/* SPDX-License-Identifier: Apache-2.0 */
// Matching a log text against a shape in which every '#' stands for a run
// of decimal digits (a line number, a duration); everything else must be
// equal character for character.
#ifndef HARVO_TEST_FOUNDATION_TEXTSHAPE_H
#define HARVO_TEST_FOUNDATION_TEXTSHAPE_H

#include <cctype>
#include <string>
#include <vector>

namespace harvo_test {

// True when |text| has |shape|; the digit runs go into |numbers| in order.
inline bool MatchShape(const std::string& text, const std::string& shape,
                       std::vector<std::string>* numbers) {
    size_t t = 0;
    for (size_t s = 0; s < shape.size(); ++s) {
        if (shape[s] == '#') {
            size_t begin = t;
            while (t < text.size() && std::isdigit(static_cast<unsigned char>(text[t])))
                ++t;
            if (t == begin)
                return false;
            if (numbers != nullptr)
                numbers->push_back(text.substr(begin, t - begin));
        } else {
            if (t >= text.size() || text[t] != shape[s])
                return false;
            ++t;
        }
    }
    return t == text.size();
}

}  // namespace harvo_test

#endif  // HARVO_TEST_FOUNDATION_TEXTSHAPE_H
