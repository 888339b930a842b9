// Comparisons: the definition of a match, and its reduction to intervals.
//
// An element and a value are left-aligned byte strings. With both rounded up to whole bytes, the longer is cut to the
// length of the shorter, the two are compared as unsigned numbers, and a tie goes to the widths: the shorter is the
// lesser. So a comparison has one of three outcomes, and an operator is the set of those that it accepts.
//
// For elements of one width the outcomes are three consecutive intervals of the elements' own domain: below, equal,
// above. Every operator, with one value or two, is then membership in at most two intervals, perhaps negated, and
// x in [first, first + span] is one subtraction and one unsigned comparison.
#pragma once

#include "kel_producer.h"
#include <algorithm>
#include <compare>
#include <utility>

enum outcome_t : unsigned { outcome_less = 1, outcome_equal = 2, outcome_greater = 4 };

constexpr unsigned accept_eq = outcome_equal;
constexpr unsigned accept_ne = outcome_less | outcome_greater;
constexpr unsigned accept_lt = outcome_less;
constexpr unsigned accept_le = outcome_less | outcome_equal;
constexpr unsigned accept_gt = outcome_greater;
constexpr unsigned accept_ge = outcome_greater | outcome_equal;

// An operator: what it accepts of the comparison with each value, and how two are joined. {} is none.
struct operator_t {
    unsigned accept[2];
    bool both;
};

inline bool accepts(unsigned accept, int order)
{
    return accept >> (order + 1) & 1;
}

// ---- Reduction ------------------------------------------------------------------------------------------------------

// A place between elements: in front of one, or behind the last one of a domain.
template <class Word>
struct border_t {
    bool end;
    Word at; // at the end the number of elements, as far as it fits

    auto operator<=>(const border_t &) const = default;
};

// One of two borders, by their members: a whole one that was chosen would be loaded in one piece, which has to wait for
// the stores of both.
template <class Word>
[[gnu::always_inline]] inline border_t<Word> choose(bool first, border_t<Word> a, border_t<Word> b)
{
    return {first ? a.end : b.end, first ? a.at : b.at};
}

// Elements from one border to another.
template <class Word>
struct interval_t {
    border_t<Word> begin;
    border_t<Word> end;

    bool empty() const
    {
        return begin >= end;
    }

    Word span() const
    {
        return end.at - begin.at - 1;
    }
};

// The borders between the outcomes of elements that fit in a word, against a value of value_bits, at least 1.
template <class Word>
struct outcomes_t {
    border_t<Word> equal;   // in front of the first element that is not below
    border_t<Word> greater; // in front of the first element that is above
    border_t<Word> end;     // of the domain
};

template <class Word, class Value>
[[gnu::always_inline]] inline outcomes_t<Word> outcomes(uint64_t element_bits, Value value, uint64_t value_bits)
{
    const uint64_t rounded = kel_round_bits(element_bits);
    const uint64_t value_rounded = kel_round_bits(value_bits);
    const uint64_t cut = rounded > value_rounded ? rounded - value_rounded : 0; // bits cut off every element
    if (value_rounded > rounded)
        value >>= value_rounded - rounded;

    const Word last = ~Word{0} >> (8 * sizeof(Word) - element_bits);
    const Word highest = last >> cut; // of what is left of an element
    const auto cut_value = static_cast<Word>(value);
    const border_t<Word> end = {true, last + 1};
    const border_t<Word> at_value = choose(value > highest, end, {false, cut_value << cut});
    const border_t<Word> above_value = choose(value >= highest, end, {false, (cut_value + 1) << cut});
    return {choose(rounded >= value_rounded, at_value, above_value),
            choose(rounded > value_rounded, at_value, above_value), end};
}

// The elements that an operator accepts, but for NE, for which it is those that it does not accept.
template <class Word>
[[gnu::always_inline]] inline interval_t<Word> accepted(unsigned accept, const outcomes_t<Word> &at)
{
    if (accept == accept_ne || accept == accept_eq)
        return {at.equal, at.greater};
    const bool low = accept & outcome_less;
    const border_t<Word> border = choose(accept == accept_lt || accept == accept_ge, at.equal, at.greater);
    return {choose(low, {}, border), choose(low, border, at.end)};
}

// A predicate of two intervals: empty ones are left out, and no interval at all is the negation of all.
template <class Word>
[[gnu::always_inline]] inline membership_t<Word> make_predicate(interval_t<Word> a, interval_t<Word> b, bool negated,
                                                                border_t<Word> domain)
{
    if (a.empty())
        a = std::exchange(b, {});
    const bool none = a.empty();
    if (none)
        a = {{}, domain};
    return {{a.begin.at, b.begin.at}, {a.span(), b.span()}, b.empty() ? 1u : 2u, none != negated};
}

template <class Word>
[[gnu::always_inline]] inline membership_t<Word> reduce(const operator_t &op, const outcomes_t<Word> &at)
{
    return make_predicate<Word>(accepted(op.accept[0], at), {}, op.accept[0] == accept_ne, at.end);
}

// The joins that operators have: EQ or EQ, NE and NE, and of two orders either both of a range or one of its outsides.
template <class Word>
[[gnu::always_inline]] inline membership_t<Word> reduce(const operator_t &op, const outcomes_t<Word> &lower,
                                                        const outcomes_t<Word> &upper)
{
    const interval_t<Word> a = accepted(op.accept[0], lower);
    const interval_t<Word> b = accepted(op.accept[1], upper);
    if (op.accept[0] == accept_eq || op.accept[0] == accept_ne)
        return make_predicate(a, b, op.accept[0] == accept_ne, lower.end);
    if (op.both)
        return make_predicate<Word>({choose(a.begin < b.begin, b.begin, a.begin), choose(a.end < b.end, a.end, b.end)},
                                    {}, false, lower.end);
    return make_predicate<Word>({a.end, b.begin}, {}, true, lower.end); // below a or above b: not between
}
