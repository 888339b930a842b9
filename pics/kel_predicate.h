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

__extension__ typedef unsigned __int128 uint128_t;

// Elements from begin up to, not including, end. Border is a type with room for the end of the domain: for elements of
// 64 bits one of 128.
template <class Border>
struct interval_t {
    Border begin;
    Border end;

    bool empty() const
    {
        return begin >= end;
    }
};

// The borders between the outcomes of elements of element_bits (1 to 64) against a value of value_bits (1 to 128).
template <class Border>
struct outcomes_t {
    Border equal;   // the first element that is not below
    Border greater; // the first element that is above
    Border end;     // the end of the domain
};

template <class Border>
outcomes_t<Border> outcomes(uint64_t element_bits, uint128_t value, uint64_t value_bits)
{
    const uint64_t rounded = kel_round_bits(element_bits);
    const uint64_t value_rounded = kel_round_bits(value_bits);
    const uint64_t cut = rounded > value_rounded ? rounded - value_rounded : 0; // bits cut off every element
    if (value_rounded > rounded)
        value >>= value_rounded - rounded;

    const Border end = Border{1} << element_bits;
    const Border highest = (end - 1) >> cut; // of what is left of an element
    const auto cut_value = static_cast<Border>(value);
    const Border at_value = value > highest ? end : cut_value << cut;
    const Border above_value = value >= highest ? end : (cut_value + 1) << cut;
    return {rounded >= value_rounded ? at_value : above_value, rounded > value_rounded ? at_value : above_value, end};
}

// The elements that an operator accepts, but for NE, for which it is those that it does not accept.
template <class Border>
interval_t<Border> accepted(unsigned accept, const outcomes_t<Border> &at)
{
    if (accept == accept_ne || accept == accept_eq)
        return {at.equal, at.greater};
    const bool low = accept & outcome_less;
    const Border border = accept == accept_lt || accept == accept_ge ? at.equal : at.greater;
    return low ? interval_t<Border>{0, border} : interval_t<Border>{border, at.end};
}

// A predicate of two intervals: empty ones are left out, and no interval at all is the negation of all.
template <class Border>
predicate_t make_predicate(interval_t<Border> a, interval_t<Border> b, bool negated, Border domain)
{
    if (a.empty())
        a = std::exchange(b, {});
    const bool none = a.empty();
    if (none)
        a = {0, domain};
    return {{static_cast<uint64_t>(a.begin), static_cast<uint64_t>(b.begin)},
            {static_cast<uint64_t>(a.end - a.begin - 1), static_cast<uint64_t>(b.end - b.begin - 1)},
            b.empty() ? 1u : 2u,
            none != negated};
}

template <class Border>
predicate_t reduce(const operator_t &op, const outcomes_t<Border> &at)
{
    return make_predicate<Border>(accepted(op.accept[0], at), {}, op.accept[0] == accept_ne, at.end);
}

// The joins that operators have: EQ or EQ, NE and NE, and of two orders either both of a range or one of its outsides.
template <class Border>
predicate_t reduce(const operator_t &op, const outcomes_t<Border> &lower, const outcomes_t<Border> &upper)
{
    const interval_t<Border> a = accepted(op.accept[0], lower);
    const interval_t<Border> b = accepted(op.accept[1], upper);
    if (op.accept[0] == accept_eq || op.accept[0] == accept_ne)
        return make_predicate(a, b, op.accept[0] == accept_ne, lower.end);
    if (op.both)
        return make_predicate<Border>({a.begin > b.begin ? a.begin : b.begin, a.end < b.end ? a.end : b.end}, {}, false,
                                      lower.end);
    return make_predicate<Border>({a.end, b.begin}, {}, true, lower.end); // below a or above b: not between
}
