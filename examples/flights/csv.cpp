// Reads and checks flights.
#include "csv.h"
#include <algorithm>
#include <charconv>
#include <fstream>
#include <limits>
#include <stdexcept>
#include <string_view>

namespace
{

constexpr std::string_view header = "date,delay,distance,origin,destination";

constexpr size_t most_shown = 60; // bytes of the text at fault

// A line of a file, for messages.
struct place_t {
    const std::string &path;
    size_t line;

    [[noreturn]] void fail(std::string_view field, std::string_view reason, std::string_view text) const
    {
        std::string shown(text.substr(0, most_shown));
        for (char &c : shown)
            c = c < ' ' || c > '~' ? '?' : c;
        throw std::runtime_error(path + ":" + std::to_string(line) + ": " + std::string(field) + std::string(reason) +
                                 ": '" + shown + (text.size() > most_shown ? "..." : "") + "'");
    }
};

std::vector<std::string_view> split(std::string_view line)
{
    std::vector<std::string_view> fields;
    for (size_t comma; (comma = line.find(',')) != line.npos; line.remove_prefix(comma + 1))
        fields.push_back(line.substr(0, comma));
    fields.push_back(line);
    return fields;
}

int32_t number(const place_t &place, std::string_view field, std::string_view text, int32_t lowest,
               int32_t highest = std::numeric_limits<int32_t>::max())
{
    int32_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error == std::errc::invalid_argument || end != text.data() + text.size())
        place.fail(field, " is not a number", text);
    if (error == std::errc::result_out_of_range || value < lowest || value > highest)
        place.fail(field, " is out of range", text);
    return value;
}

std::string airport(const place_t &place, std::string_view field, std::string_view text)
{
    const auto letter = [](char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); };
    if (text.size() != 3 || !std::all_of(text.begin(), text.end(), letter))
        place.fail(field, " is not an airport code of 3 letters", text);
    return std::string(text);
}

void add_date(const place_t &place, std::string_view text, flights_t &flights)
{
    constexpr std::string_view shape = "0000-00-00 00:00";
    const auto fits = [](char c, char s) { return s == '0' ? c >= '0' && c <= '9' : c == s; };
    if (!std::equal(text.begin(), text.end(), shape.begin(), shape.end(), fits))
        place.fail("date", " is not YYYY-MM-DD HH:MM", text);
    number(place, "day", text.substr(8, 2), 1, 31);
    number(place, "month", text.substr(5, 2), 1, 12);
    const int32_t minute = number(place, "minute", text.substr(14, 2), 0, 59);
    flights.time.push_back(60 * number(place, "hour", text.substr(11, 2), 0, 23) + minute);
    flights.day.emplace_back(text.substr(0, 10));
}

void add_flight(const place_t &place, std::string_view line, flights_t &flights)
{
    const std::vector<std::string_view> fields = split(line);
    if (fields.size() != 5)
        place.fail("5 fields are expected, found ", std::to_string(fields.size()), line);
    add_date(place, fields[0], flights);
    flights.delay.push_back(number(place, "delay", fields[1], std::numeric_limits<int32_t>::min()));
    flights.distance.push_back(number(place, "distance", fields[2], 0));
    flights.origin.push_back(airport(place, "origin", fields[3]));
    flights.destination.push_back(airport(place, "destination", fields[4]));
}

} // namespace

flights_t read_flights(const std::string &path)
{
    std::ifstream file(path);
    if (!file)
        throw std::runtime_error(path + ": cannot be opened");
    flights_t flights;
    place_t place{path, 0};
    for (std::string line; std::getline(file, line);) {
        place.line++;
        if (line.ends_with('\r'))
            line.pop_back();
        if (place.line > 1)
            add_flight(place, line, flights);
        else if (line != header)
            place.fail("header", " is not '" + std::string(header) + "'", line);
    }
    if (file.bad())
        throw std::runtime_error(path + ": cannot be read");
    if (flights.day.empty())
        throw std::runtime_error(path + (place.line == 0 ? ":1: the file is empty" : ":1: no flight after the header"));
    return flights;
}
