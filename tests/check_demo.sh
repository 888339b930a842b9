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

"$flights" --no-times "$data" >"$scratch/out" || fail "the demo fails"

expect_count() { # expect_count STEP WHAT CONDITION, the latter on the fields of a line
    count=$(awk -F, "NR > 1 && ($3)" "$data" | wc -l)
    grep -q "^$1  *$2 .* $count\$" "$scratch/out" || fail "not answered with $count: $1, $2"
}
middle='$3 >= 500 && $3 <= 1000'
early='substr($1, 12) < "06:00"'
from='($4 == "EWR" || $4 == "JFK" || $4 == "LGA")'
found="($middle || $early) && \$2 > 120"
not_march="$found && $from && substr(\$1, 6, 2) != \"03\""
elsewhere="$not_march && \$5 != \"ORD\" && \$5 != \"MDW\""
wanted="$elsewhere && \$1 >= \"2001-02-01\""
expect_count kel_scan_range "500 to 1000 miles" "$middle"
expect_count kel_scan_value "before 6 in the morning" "$early"
expect_count kel_or "either of the two" "$middle || $early"
expect_count kel_scan_value "over 2 hours late" '$2 > 120'
expect_count kel_and "either, and late" "$found"
expect_count kel_translate "from New York" "$from"
expect_count kel_and "these, from New York" "$found && $from"
expect_count kel_translate "not in March" 'substr($1, 6, 2) != "03"'
expect_count kel_and "these, not in March" "$not_march"
expect_count kel_scan_range "not to Chicago" '$5 != "ORD" && $5 != "MDW"'
expect_count kel_and "these, not to Chicago" "$elsewhere"
expect_count kel_scan_value "since February" '$1 >= "2001-02-01"'
expect_count kel_and "these, since February" "$wanted"
grep -q "^date .* [1-9][0-9]*\.[0-9]* *[0-9.]*$" "$scratch/out" || fail "no codec of dates"
expect_count kel_extract "runs to rows" 1
for column in time origin destination distance delay day; do
    expect_count kel_select "[124]-byte elements  *$column" "$wanted"
done
expect_count kel_scan_value "row numbers" "$wanted"

awk -F, "NR > 1 && $wanted {
    printf \"%8d  %s  %-4s  %-3s  %6d  %6d\\n\", NR - 2, \$1, \$4, \$5, \$3, \$2 }" "$data" | head -10 >"$scratch/rows"
sed '1,/^ *row  date/d;/^$/,$d' "$scratch/out" | diff "$scratch/rows" - || fail "not the wanted rows"
grep -q "posted as a chain of 5 requests and polled, finds the same" "$scratch/out" || fail "no word of the chain"
grep -q "^Every bit and every element agrees" "$scratch/out" || fail "no word of agreement"

"$flights" --trace "$data" >"$scratch/trace" || fail "the trace fails"
grep -q "kel_and_post(): .* flags=serial|pipe_src|pipe_mask" "$scratch/trace" || fail "no mask is piped"
grep -q "kel_select_post() returns SUCCESS" "$scratch/trace" || fail "no trace of the chain"

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
