// Flights as a file of comma-separated values holds them, read into plain arrays.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// One array for each column; the same index is the same flight.
struct flights_t {
    std::vector<std::string> day;    // YYYY-MM-DD
    std::vector<int32_t> time;       // minutes since midnight
    std::vector<int32_t> delay;      // minutes; negative: early
    std::vector<int32_t> distance;   // miles
    std::vector<std::string> origin; // codes of three letters
    std::vector<std::string> destination;
};

// Reads a file that has a header and at least one flight. Throws std::runtime_error, "FILE:LINE: reason" or, if the
// file cannot be read, "FILE: reason".
flights_t read_flights(const std::string &path);
