#!/usr/bin/env bash
# Builds quillon_event_log::QuillonEventLog with AddressSanitizer and
# UndefinedBehaviorSanitizer in a copy of the tree (the normal build is not
# touched) and runs the test suite and both fuzzers of xt/ under them. Any
# sanitizer report, failed test or fuzzer problem fails the run.
#
# Usage: bash tools/sanitize.sh [options]
#   --dir DIR          build in DIR (default: a new directory under /tmp); an
#                      existing build there is brought up to date, not redone
#   --wire-count N     inputs of xt/fuzz_wire.pl (default 2000, or $QEL_WIRE_COUNT)
#   --calls-count N    calls of xt/fuzz_calls.pl (default 20000, or $QEL_CALLS_COUNT)
#   --seed N           seed of both fuzzers (default 1, or $QEL_FUZZ_SEED)
#   --split N          run each fuzzer as N processes at once, with the seeds
#                      SEED .. SEED+N-1 and 1/N of the count each (default 1)
#   --fuzz-options S   further options for both fuzzers, e.g. "--max-problems 100"
#   --wire-options S   further options for xt/fuzz_wire.pl
#   --calls-options S  further options for xt/fuzz_calls.pl, e.g. "--no-tied-hashes"
#   --no-tests         skip the test suite
#   --no-fuzz          skip the fuzzers
#
# Everything the sanitized processes write on standard error goes to
# DIR/sanitize.log, less the protocol-buffer runtime's complaints about
# strings that are not UTF-8 (counted, not kept: the fuzzers make millions).
# Perl leaks at exit by design, so leak detection is off. Example, two
# processes of half a million inputs each:
#   bash tools/sanitize.sh --wire-count 1000000 --calls-count 0 --split 2
set -euo pipefail

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
dir=
wire_count=${QEL_WIRE_COUNT:-2000}
calls_count=${QEL_CALLS_COUNT:-20000}
seed=${QEL_FUZZ_SEED:-1}
split=1
wire_options=
calls_options=
run_tests=1
run_fuzz=1

usage() { sed -n '7,/^set -euo/p' "${BASH_SOURCE[0]}" | sed -e '$d' -e 's/^# \{0,1\}//'; exit "${1:-0}"; }

while (($#)); do
    case "$1" in
        --dir) dir=$2; shift 2 ;;
        --wire-count) wire_count=$2; shift 2 ;;
        --calls-count) calls_count=$2; shift 2 ;;
        --seed) seed=$2; shift 2 ;;
        --split) split=$2; shift 2 ;;
        --fuzz-options) wire_options="$wire_options $2"; calls_options="$calls_options $2"; shift 2 ;;
        --wire-options) wire_options="$wire_options $2"; shift 2 ;;
        --calls-options) calls_options="$calls_options $2"; shift 2 ;;
        --no-tests) run_tests=0; shift ;;
        --no-fuzz) run_fuzz=0; shift ;;
        -h|--help) usage 0 ;;
        *) echo "unknown option: $1" >&2; usage 2 ;;
    esac
done
for n in "$wire_count" "$calls_count" "$seed" "$split"; do
    [[ $n =~ ^[0-9]+$ ]] || { echo "not a number: $n" >&2; exit 2; }
done
((split >= 1)) || { echo "--split must be at least 1" >&2; exit 2; }

[[ -n $dir ]] || dir=$(mktemp -d /tmp/qel-sanitize-XXXXXX)
mkdir -p "$dir"
dir=$(cd "$dir" && pwd)
[[ $dir != "$top" ]] || { echo "the build directory must not be the tree itself" >&2; exit 2; }
log=$dir/sanitize.log
: >"$log"
rm -f "$dir"/utf8.count.* "$dir"/fuzz_*.out
started=$(date +%s.%N)

elapsed() { perl -e 'printf "%.1f", $ARGV[1] - $ARGV[0]' "$1" "$(date +%s.%N)"; }

# The sources: the files git knows of or would add (tracked and untracked, not
# ignored), or the MANIFEST outside a git checkout. They are unpacked beside
# the build tree and only the files whose contents differ are copied into it,
# with the time of the copy: an existing build is then brought up to date by
# make even when a changed file carries an older time than its object (as a
# file checked out or merged after the last build does).
echo "== copying the tree to $dir/src-tree"
mkdir -p "$dir/src-tree"
rm -rf "$dir/incoming"
mkdir -p "$dir/incoming"
(
    cd "$top"
    if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
        git ls-files -z --cached --others --exclude-standard
    else
        grep -v '^\s*$' MANIFEST | cut -d' ' -f1 | tr '\n' '\0'
    fi
) | (cd "$top" && xargs -0 sh -c 'for f; do [ -e "$f" ] && printf "%s\0" "$f"; done' sh) \
  | (cd "$top" && tar --null -T - -cf -) | (cd "$dir/incoming" && tar -xf -)
(cd "$dir/incoming" && find . -type f -print0) | while IFS= read -r -d '' f; do
    if ! cmp -s "$dir/incoming/$f" "$dir/src-tree/$f"; then
        mkdir -p "$(dirname "$dir/src-tree/$f")"
        cp "$dir/incoming/$f" "$dir/src-tree/$f"
    fi
done
rm -rf "$dir/incoming"
build=$dir/src-tree

echo "== building with -fsanitize=address,undefined"
t0=$(date +%s.%N)
lddlflags="$(perl -MConfig -e 'print $Config{lddlflags}') -fsanitize=address,undefined"
(
    cd "$build"
    [[ -f Makefile && Makefile -nt Makefile.PL ]] || perl Makefile.PL >"$dir/build.log" 2>&1
    make OPTIMIZE='-O1 -g -fsanitize=address,undefined -fno-omit-frame-pointer' \
         LDDLFLAGS="$lddlflags" >>"$dir/build.log" 2>&1
) || { echo "the build failed: see $dir/build.log" >&2; tail -20 "$dir/build.log" >&2; exit 1; }
# (grep reads all of nm's output: with -q, nm could die of SIGPIPE under pipefail)
nm "$build"/blib/arch/auto/quillon_event_log/QuillonEventLog/QuillonEventLog.so | grep __asan_ >/dev/null \
    || { echo "the module was not built with AddressSanitizer: see $dir/build.log" >&2; exit 1; }
echo "   built in $(elapsed "$t0") s"

export LD_PRELOAD="$(g++ -print-file-name=libasan.so) $(g++ -print-file-name=libubsan.so)"
export ASAN_OPTIONS=detect_leaks=0:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1

# filtered CMD...: runs CMD with its standard error appended to the log, less
# the runtime's UTF-8 complaints, whose number goes to $dir/utf8.count.N.
filter_id=0
filtered() {
    filter_id=$((filter_id + 1))
    local count=$dir/utf8.count.$BASHPID.$filter_id
    "$@" 2> >(awk -v out="$count" '/\[libprotobuf ERROR .*contains invalid UTF-8 data when/ { n++; next }
                                    { print; fflush() } END { print n + 0 > out }' >>"$log")
}

status=0
summary=()

if ((run_tests)); then
    echo "== the test suite"
    t0=$(date +%s.%N)
    if (cd "$build" && filtered make test); then
        summary+=("test suite: passed ($(elapsed "$t0") s)")
    else
        summary+=("test suite: FAILED ($(elapsed "$t0") s)")
        status=1
    fi
fi

# fuzz NAME COUNT OPTIONS: the fuzzer NAME with COUNT in $split processes.
fuzz() {
    local name=$1 count=$2 options=$3
    ((count > 0)) || return 0
    echo "== xt/$name.pl, $count in $split process(es), seed $seed and up"
    local t0 pids=() i part first_status=0
    t0=$(date +%s.%N)
    for ((i = 0; i < split; i++)); do
        part=$((count / split + (i < count % split ? 1 : 0)))
        # shellcheck disable=SC2086
        (cd "$build" && filtered perl -Mblib "xt/$name.pl" --quiet --seed $((seed + i)) --count "$part" $options \
            >"$dir/$name.$i.out") &
        pids+=($!)
    done
    for ((i = 0; i < split; i++)); do
        if ! wait "${pids[$i]}"; then first_status=1; fi
        cat "$dir/$name.$i.out"
    done
    local took
    took=$(elapsed "$t0")
    if ((first_status)); then
        summary+=("$name: FAILED, $count in $took s ($(perl -e 'printf "%.0f", $ARGV[0] / ($ARGV[1] || 1)' "$count" "$took")/s)")
        status=1
    else
        summary+=("$name: passed, $count in $took s ($(perl -e 'printf "%.0f", $ARGV[0] / ($ARGV[1] || 1)' "$count" "$took")/s)")
    fi
}

if ((run_fuzz)); then
    fuzz fuzz_wire "$wire_count" "$wire_options"
    fuzz fuzz_calls "$calls_count" "$calls_options"
fi
wait    # the log filters

asan=$(grep -c 'ERROR: AddressSanitizer' "$log" || true)
ubsan=$(grep -c 'runtime error:' "$log" || true)
utf8=$(cat "$dir"/utf8.count.* 2>/dev/null | awk '{ n += $1 } END { print n + 0 }')
other=$(grep -vc '^\s*$' "$log" || true)

echo
echo "== summary"
printf '   %s\n' "${summary[@]}"
echo "   AddressSanitizer reports: $asan; UndefinedBehaviorSanitizer reports: $ubsan"
echo "   standard error: $utf8 UTF-8 complaints of the runtime (dropped), $other other lines in $log"
echo "   total $(elapsed "$started") s; build and logs in $dir"
if ((asan + ubsan)); then
    echo
    echo "== sanitizer reports"
    grep -n -A30 -E 'ERROR: AddressSanitizer|runtime error:' "$log" | head -200
    status=1
fi
exit "$status"
