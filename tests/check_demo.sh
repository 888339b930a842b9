#!/bin/sh
# check_demo.sh FLIGHTS DATA: the demo's answers on the shipped data, against awk's, and its words on bad files.
set -u
flights=$1
data=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

fail() {
    echo "$*"
    exit 1
}

expect_count() { # expect_count QUESTION CONDITION, the latter on the fields of a line
    count=$(awk -F, "NR > 1 && ($2)" "$data" | wc -l)
    "$flights" --no-times | grep -q "^$1 .* $count\$" || fail "not answered with $count: $1"
}
expect_count "more than 2 hours late" '$2 > 120'
expect_count "500 to 1000 miles" '$3 >= 500 && $3 <= 1000'
expect_count "to Chicago (ORD or MDW)" '$5 == "ORD" || $5 == "MDW"'
expect_count "from San Francisco (SFO)" '$4 == "SFO"'
"$flights" --no-times | grep -q "^Every bit and every index agrees" || fail "no word of agreement"

"$flights" --no-times | grep -q "scans, posted as one chain and polled, find the same" || fail "no word of the chain"
"$flights" --trace | grep -q "kel_scan_range_post returns {SUCCESS}" || fail "no trace of the chain"

expect_refusal() { # expect_refusal WORDS; the file comes on standard input
    cat >"$scratch/bad.csv"
    "$flights" "$scratch/bad.csv" >/dev/null 2>"$scratch/words"
    [ $? = 1 ] || fail "wrong exit status for: $1"
    [ "$(cat "$scratch/words")" = "$scratch/bad.csv:$1" ] || fail "wrong words: $(cat "$scratch/words")"
}
head=date,delay,distance,origin,destination
good='2001-01-01 00:01,33,2176,LAS,PHL'
expect_refusal "1: the file is empty" </dev/null
printf '%s\n%s\n2001-01-01 00:01,33,2176,LAS\n' $head "$good" |
    expect_refusal "3: 5 fields are expected, found 4: '2001-01-01 00:01,33,2176,LAS'"
printf '%s\n2001-01-01 00:01,33,-1,LAS,PHL\n' $head | expect_refusal "2: distance is out of range: '-1'"
