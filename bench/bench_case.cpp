#include "bench_case.h"
#include "bench_plain.h"
#include <algorithm>
#include <deque>
#include <map>
#include <set>

namespace
{

constexpr const char *runner_names[runners] = {"limit", "kel", "portable", "walk", "plain"};

std::map<std::string, role_t> &get_roles()
{
    static std::map<std::string, role_t> roles;
    return roles;
}

// The task of the case that was asked for last is kept: its runners stand one behind the other.
const task_t &get_task(const case_t &of)
{
    static const case_t *kept = nullptr;
    static task_t task;
    if (kept != &of) {
        task = {}; // before the next one takes its room
        task = of.make();
        kept = &of;
    }
    return task;
}

uint8_t reverse_bits(uint8_t byte)
{
    uint8_t reversed = 0;
    for (unsigned i = 0; i < 8; i++)
        reversed = static_cast<uint8_t>(reversed << 1 | (byte >> i & 1));
    return reversed;
}

// The same elements as plain loops store them.
void make_plain(std::vector<uint8_t> &bytes, unsigned unit)
{
    if (unit == 0)
        std::transform(bytes.begin(), bytes.end(), bytes.begin(), reverse_bits);
    else
        for (auto at = bytes.begin(); at != bytes.end(); at += unit)
            std::reverse(at, at + unit);
}

const library_t &library_of(runner_t runner)
{
    return runner == runner_portable ? get_portable() : runner == runner_walk ? get_walk() : get_library();
}

// Whether a run yields what it should; the destination is spoilt first.
bool is_right(const task_t &task, runner_t runner)
{
    outcome_t expected = task.expect();
    memset(task.destination, 0x5a, expected.bytes.size());
    if (runner == runner_plain) {
        make_plain(expected.bytes, task.plain_unit);
        task.plain();
    } else {
        const kel_result_t result = task.once(library_of(runner));
        if (result.status != KEL_SUCCESS || result.count != expected.count)
            return false;
    }
    return memcmp(task.destination, expected.bytes.data(), expected.bytes.size()) == 0;
}

void run_limit(benchmark::State &state, const case_t &of)
{
    const uint8_t *from = source_bytes();
    uint8_t *to = destination_bytes();
    for ([[maybe_unused]] auto _ : state) {
        if (of.limit == limit_t::read)
            benchmark::DoNotOptimize(plain_read(from, of.bytes));
        else if (of.limit == limit_t::copy)
            memcpy(to, from, of.bytes);
        else
            memset(to, 1, of.bytes);
        benchmark::ClobberMemory();
    }
}

void run_case(benchmark::State &state, role_t role)
{
    static std::set<std::pair<const case_t *, runner_t>> checked;
    if (role.runner == runner_limit)
        return run_limit(state, *role.of);
    const task_t &task = get_task(*role.of);
    if (!checked.contains({role.of, role.runner})) {
        if (!is_right(task, role.runner))
            return state.SkipWithError("the result is wrong");
        checked.insert({role.of, role.runner});
    }
    if (role.runner != runner_plain)
        return task.loop(state, library_of(role.runner));
    for ([[maybe_unused]] auto _ : state) {
        task.plain();
        benchmark::ClobberMemory();
    }
}

bool takes_part(const case_t &of, runner_t runner)
{
    switch (runner) {
    case runner_limit:
        return of.limit != limit_t::none;
    case runner_portable:
        return !of.once;
    case runner_walk:
        return of.walk;
    case runner_plain:
        return of.plain;
    default:
        return true;
    }
}

// A name without what a shell or a filter might take amiss.
std::string name_of(list_t list, const case_t &of, runner_t runner)
{
    std::string name = std::string(list == list_t::table ? "table/" : "more/") + of.operation + "/" + of.shape;
    if (of.limit != limit_t::none)
        name.append("/").append(size_text(of.elements));
    name.append("/").append(runner_names[runner]);
    std::erase_if(name, [](char c) { return c == ','; });
    std::replace(name.begin(), name.end(), ' ', '-');
    return name;
}

} // namespace

void add_case(list_t list, case_t added)
{
    static std::deque<case_t> cases; // stay where they are
    const case_t &of = cases.emplace_back(std::move(added));
    for (const runner_t runner : {runner_limit, runner_library, runner_portable, runner_walk, runner_plain}) {
        if (!takes_part(of, runner))
            continue;
        const std::string name = name_of(list, of, runner);
        const role_t role = {&of, runner};
        get_roles()[name] = role;
        benchmark::RegisterBenchmark(name.c_str(), run_case, role);
    }
}

role_t find_role(const std::string &benchmark)
{
    const auto at = get_roles().find(benchmark);
    return at == get_roles().end() ? role_t{nullptr, runners} : at->second;
}

std::string size_text(uint64_t size)
{
    if (size % 1'000'000 == 0)
        return std::to_string(size / 1'000'000) + " M";
    return size % 1024 == 0 ? std::to_string(size / 1024) + " K" : std::to_string(size);
}

uint8_t *source_bytes()
{
    static const bench_bytes bytes = [] {
        bench_bytes random(most_bytes);
        uint64_t state = 1;
        for (uint64_t i = 0; i < most_bytes / 8; i++) {
            const uint64_t word = next_random(state);
            memcpy(random.data() + 8 * i, &word, sizeof word);
        }
        return random;
    }();
    return bytes.data();
}

uint8_t *destination_bytes()
{
    static const bench_bytes bytes(most_bytes);
    return bytes.data();
}
