#!/bin/sh
# check_probes.sh LIBRARY: the shared library tells tracers of two probes, kel-execute and kel-poll, with four 8-byte
# arguments each, and a one-byte no-op stands at each of their sites.
set -u
library=$1

# "provider name site argument..." of each probe.
probes=$(LC_ALL=C readelf --notes "$library" | awk '
    $1 == "Provider:" {provider = $2}
    $1 == "Name:" {name = $2}
    $1 == "Location:" {site = $2; sub(",", "", site)}
    $1 == "Arguments:" {$1 = ""; print provider, name, site $0}' | sort)
shapes=$(printf '%s\n' "$probes" | awk '{gsub(/%[a-z0-9]+/, "%"); $3 = ""; print}')
wanted="kel kel-execute  8@% 8@% 8@% 8@%
kel kel-poll  8@% 8@% 8@% 8@%"
notes=$(LC_ALL=C readelf --notes "$library" | grep -c '^ *stapsdt ')
if [ "$shapes" != "$wanted" ] || [ "$notes" != 2 ]; then
    printf '%s notes of probes:\n%s\n' "$notes" "$probes"
    exit 1
fi

for site in $(printf '%s\n' "$probes" | awk '{print $3}'); do
    code=$(LC_ALL=C objdump -d --no-show-raw-insn --start-address="$site" --stop-address=$((site + 1)) "$library" |
        awk '/^ *[0-9a-f]+:/ {print $2}')
    if [ "$code" != nop ]; then
        echo "at $site: ${code:-no code}"
        exit 1
    fi
done
