// Flights as a file of comma-separated values holds them, read into plain arrays.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

using airport_t = std::array<char, 3>; // a code of three letters

// One array for each column; the same index is the same flight.
struct flights_t {
    std::vector<std::string> date; // YYYY-MM-DD HH:MM
    std::vector<uint8_t> month;    // 1 to 12
    std::vector<uint8_t> hour;     // 0 to 23
    std::vector<int32_t> delay;    // minutes; negative: early
    std::vector<int32_t> distance; // miles
    std::vector<airport_t> origin;
    std::vector<airport_t> destination;

    size_t size() const
    {
        return date.size();
    }
};

// Reads a file that has a header and at least one flight. Throws std::runtime_error, "FILE:LINE: reason" or, if the
// file cannot be read, "FILE: reason".
flights_t read_flights(const std::string &path);
