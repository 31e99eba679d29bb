#!/bin/sh
# Seeds for the fuzz harnesses, made afresh in WORK/seeds:
#   make_seeds.sh WORK EXAMPLES_DIR DATA_DIR
# The reader gets the examples and the smaller shared problems, each as text
# and gzip; the entries get short random byte strings, from which their
# harnesses build records; every harness gets the inputs of its past findings
# (regressions/).
set -eu
work=$1 examples=$2 data=$3
rm -rf "$work/seeds"
mkdir -p "$work/seeds/fuzz_reader" "$work/seeds/fuzz_qprecord" "$work/seeds/fuzz_lprecord" \
         "$work/fuzz_reader" "$work/fuzz_qprecord" "$work/fuzz_lprecord"
out=$work/seeds/fuzz_reader
for f in "$examples"/*.mps "$examples"/*.qps; do
  [ -f "$f" ] || continue
  b=$(basename "$f")
  cp "$f" "$out/$b"
  gzip -c "$f" > "$out/$b.gz"
done
n=0
for f in $(ls -S -r "$data"/netlib/*.gz "$data"/maros/*.gz 2>/dev/null); do
  [ "$(wc -c < "$f")" -le 6000 ] || continue
  b=$(basename "$f" .gz)
  cp "$f" "$out/$b.gz"
  gzip -dc "$f" > "$out/$b"
  n=$((n + 1))
  [ $n -lt 24 ] || break
done
[ $n -gt 0 ] || { echo "no shared problems in $data" >&2; exit 1; }
# What the harnesses found once stays among their seeds.
for h in fuzz_reader fuzz_qprecord fuzz_lprecord; do
  if [ -d "$(dirname "$0")/regressions/$h" ]; then
    cp "$(dirname "$0")"/regressions/$h/* "$work/seeds/$h/"
  fi
done
i=0
while [ $i -lt 32 ]; do
  head -c $((64 + i * 16)) /dev/urandom > "$work/seeds/fuzz_qprecord/random$i"
  head -c $((64 + i * 16)) /dev/urandom > "$work/seeds/fuzz_lprecord/random$i"
  i=$((i + 1))
done
