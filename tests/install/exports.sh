#!/usr/bin/env bash
# The plug-in exports exactly its 142 entry points and the binding traits of the 24 types.
#   exports.sh PLUGIN_FILE
set -euo pipefail
symbols=$(nm -D --defined-only "$1" | awk '$2 ~ /^[TWVDBR]$/ { print $3 }')
entries=$(grep -c '^generated_opcua_' <<<"$symbols" || true)
traits=$(grep -c 'DuvoOpcUaTraits' <<<"$symbols" || true)
others=$(grep -v -e '^generated_opcua_' -e 'DuvoOpcUaTraits' <<<"$symbols" || true)
echo "entry points: $entries, traits: $traits"
for kind in DataEntity Publisher Subscriber MrvSubscriber; do
    echo "  $kind: $(grep -c "^generated_opcua_${kind}_m2Types_" <<<"$symbols" || true)"
done
echo "  Client: $(grep -c '^generated_opcua_Client_m2Types_' <<<"$symbols" || true)"
[ "$entries" -eq 142 ] || { echo "expected 142 entry points"; exit 1; }
[ "$traits" -eq 48 ] || { echo "expected makeImpl and isImpl of 24 types"; exit 1; }
[ -z "$others" ] || { echo "also exported:"; echo "$others" | head -20; exit 1; }
