#!/bin/sh
# The command's exit codes and messages: 0 for any solver status, 2 for bad
# usage and bad files (naming the file and line), and the outputs it writes.
# usage: exit_codes.sh HALVEX EXAMPLES_DIR
halvex="$1"
examples="$2"
tmp="$(mktemp -d)"
trap 'rm -rf "$tmp"' EXIT
failed=0
passed=0

expect() {  # expect CODE DESCRIPTION -- command...
  want="$1"; what="$2"; shift 3
  "$@" >"$tmp/out" 2>"$tmp/err"
  got=$?
  if [ "$got" -ne "$want" ]; then
    echo "FAIL: $what: exit $got, wanted $want"; cat "$tmp/out" "$tmp/err"
    failed=$((failed + 1))
  else
    passed=$((passed + 1))
  fi
}

contains() {  # contains FILE TEXT DESCRIPTION
  if grep -qF -- "$2" "$1"; then
    passed=$((passed + 1))
  else
    echo "FAIL: $3: '$2' not in $1:"; cat "$1"
    failed=$((failed + 1))
  fi
}

expect 2 "no arguments" -- "$halvex"
expect 2 "unknown command" -- "$halvex" frobnicate
expect 2 "solve without a file" -- "$halvex" solve
expect 2 "unknown option" -- "$halvex" solve "$examples/small.mps" --bogus
expect 2 "option without its value" -- "$halvex" solve "$examples/small.mps" --max-iter
expect 2 "bad number" -- "$halvex" solve "$examples/small.mps" --tol abc
contains "$tmp/err" "--tol needs a positive number" "bad number message"
expect 2 "negative threads" -- "$halvex" solve "$examples/small.mps" --threads 0
expect 2 "bad print level" -- "$halvex" solve "$examples/small.mps" --print-level 3
expect 0 "help" -- "$halvex" --help
contains "$tmp/out" "--solution FILE" "help lists the options"

expect 2 "missing file" -- "$halvex" solve "$tmp/none.mps"
contains "$tmp/err" "$tmp/none.mps: cannot open" "missing file message"

printf 'NAME BAD\nROWS\n N OBJ\n E R1\nCOLUMNS\n    X OBJ 1 R1 2x\nENDATA\n' >"$tmp/bad.mps"
expect 2 "malformed file" -- "$halvex" solve "$tmp/bad.mps"
contains "$tmp/err" "bad.mps:6: '2x' is not a number" "malformed file names the line"

# Every kind of damage: exit 2 and a message that names the file and line.
head='NAME M\nROWS\n N C\n L A\nCOLUMNS\n X C 1 A 1\n'
printf "$head" >"$tmp/cut.mps"
for k in 1 2 3 4 5 6 7 8; do printf '* padding padding padding padding\n' >>"$tmp/cut.mps"; done
gzip -c "$tmp/cut.mps" | head -c 60 >"$tmp/cut.mps.gz"
printf 'NAME M\n\177\001\000\002\n' >"$tmp/garbage.mps"
{ printf 'NAME M\nROWS\n N '; head -c 1048576 /dev/zero | tr '\0' C; printf '\nENDATA\n'; } >"$tmp/long.mps"
printf 'NAME M\nSECTION\nENDATA\n' >"$tmp/section.mps"
printf 'NAME M\nROWS\n N C\n L A\n G A\nENDATA\n' >"$tmp/twice.mps"
printf "${head}BOUNDS\n UP BND Y 1\nENDATA\n" >"$tmp/bound.mps"
printf "${head}RHS\n RHS A 1e999\nENDATA\n" >"$tmp/number.mps"
for f in 'cut.mps.gz:[0-9]*' garbage.mps:2 long.mps:3 section.mps:2 twice.mps:5 bound.mps:8 \
         number.mps:8; do
  expect 2 "malformed ${f%:*}" -- "$halvex" solve "$tmp/${f%:*}"
  if grep -q -- "^halvex: $tmp/${f%:*}:${f#*:}: " "$tmp/err"; then
    passed=$((passed + 1))
  else
    echo "FAIL: malformed ${f%:*}: no file and line in:"; cat "$tmp/err"
    failed=$((failed + 1))
  fi
done

expect 2 "unwritable json" -- "$halvex" solve "$examples/small.mps" --json "$tmp/no/dir/x.json"

expect 0 "version" -- "$halvex" --version
contains "$tmp/out" "halvex" "version names the module"

# A solve runs through to the module whatever status it ends with.
expect 0 "LP solve" -- "$halvex" solve "$examples/small.mps" --json "$tmp/lp.json" \
  --solution "$tmp/lp.sol" --presolve off --tol 1e-8 --max-iter 50 --time-limit 60 --threads 2
contains "$tmp/out" "Status" "summary printed"
contains "$tmp/out" "4 rows, 4 columns" "free row left out of the record"
contains "$tmp/lp.json" '"returnCode":' "json has the return code"
contains "$tmp/lp.json" '"complementarity":' "json has the measures"
contains "$tmp/lp.sol" "COLUMNS 4" "solution lists the columns"
contains "$tmp/lp.sol" "VOLUME " "solution lists the free row"

# An LP takes the LP entry at any presolve level, or the QP entry when asked.
expect 0 "LP through the LP entry" -- "$halvex" solve "$examples/small.mps" --presolve 2 \
  --print-level 1 --json "$tmp/lpe.json"
contains "$tmp/out" "Entry        iplpmain" "LP entry named in the summary"
contains "$tmp/lpe.json" '"entry": "iplpmain"' "LP entry named in the json"
contains "$tmp/lpe.json" '"status": "optimal"' "LP entry solves the example"
expect 0 "LP through the QP entry" -- "$halvex" solve "$examples/small.mps" --lp-as-qp \
  --print-level 1
contains "$tmp/out" "Entry        ipqpmain" "QP entry on request"
expect 2 "presolve level out of range" -- "$halvex" solve "$examples/small.mps" --presolve 4
contains "$tmp/err" "--presolve is on, off or a level from -1 to 3" "presolve level message"
expect 2 "crossover needs on or off" -- "$halvex" solve "$examples/small.mps" --crossover maybe
contains "$tmp/err" "--crossover is on or off" "crossover message"
expect 0 "LP crosses over by default" -- "$halvex" solve "$examples/small.mps" --print-level 1 \
  --solution "$tmp/lp.sol" --write-basis "$tmp/lp.bas"
contains "$tmp/out" "Basis        4 basic" "basis counts in the summary"
contains "$tmp/lp.sol" "NUTS 2 BS" "basis status in the solution file"
contains "$tmp/lp.bas" " UL BOLTS" "column at upper in the basis file"
contains "$tmp/lp.bas" "ENDATA" "basis file closed"
expect 0 "crossover off" -- "$halvex" solve "$examples/small.mps" --print-level 1 --crossover off
if grep -q "Crossover" "$tmp/out"; then
  echo "FAIL: crossover off still crossed over"; failed=$((failed + 1))
else
  passed=$((passed + 1))
fi
expect 2 "basis file without crossover" -- "$halvex" solve "$examples/small.mps" \
  --crossover off --write-basis "$tmp/no.bas"

expect 0 "QP solve, quiet" -- "$halvex" solve "$examples/small.qps" --print-level 0 --json "$tmp/qp.json"
if [ -s "$tmp/out" ]; then
  echo "FAIL: print level 0 printed:"; cat "$tmp/out"; failed=$((failed + 1))
else
  passed=$((passed + 1))
fi
contains "$tmp/qp.json" '"problem": "SMALLQP"' "json names the problem"

gzip -c "$examples/small.qps" >"$tmp/small.qps.gz"
expect 0 "gzip input" -- "$halvex" solve "$tmp/small.qps.gz" --print-level 1
contains "$tmp/out" "Q: 3 diagonal and 2 off-diagonal" "gzip QPS read whole"

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
