#!/usr/bin/env bash
# Gives the readers of the library and of the tool bytes that nobody thought of, going on from the
# kept corpora, and adds what was run to tests/fuzz/ledger.tsv.
#   scripts/fuzz.sh [--runs N] [TARGET...]   libFuzzer: N inputs (200,000) to each target, or to all
#   scripts/fuzz.sh --afl [--runs N]         AFL++: N inputs to the reader of model files
#   scripts/fuzz.sh --keep [TARGET...]       puts what was found worth keeping into tests/fuzz/corpus
#   scripts/fuzz.sh --sweep [SAMPLE...]      sample models 0 to 19, or these of them, cut off and
#                                            damaged at every place: minutes each
# An input that a reader does not bear is put into its kept corpus, where the tests find it, and the
# exit status is 1. Builds stand in build/fuzz, or where ZORVEX_FUZZ_BUILD says.
set -euo pipefail
cd "$(dirname "$0")/.."

fuzz=tests/fuzz
ledger=$PWD/$fuzz/ledger.tsv
build=$(realpath -m "${ZORVEX_FUZZ_BUILD:-build/fuzz}")
work=$build/work
status=0

# ledger_add TARGET ENGINE EXECUTIONS FINDINGS
ledger_add() {
    [ -f "$ledger" ] || printf 'target\tengine\texecutions\tfindings\tlast\n' >"$ledger"
    awk -F'\t' -v OFS='\t' -v target="$1" -v engine="$2" -v runs="$3" -v finds="$4" \
        -v today="$(date +%F)" '
        NR > 1 && $1 == target && $2 == engine {
            $3 += runs; $4 += finds; $5 = today; is_there = 1
        }
        { print }
        END { if (!is_there) print target, engine, runs, finds, today }' "$ledger" >"$ledger.new"
    { head -n 1 "$ledger.new"; tail -n +2 "$ledger.new" | LC_ALL=C sort; } >"$ledger"
    rm "$ledger.new"
    printf '%s\t%s\t%s executions\t%s findings\n' "$@"
}

# build_in FOLDER TARGETS... -- OPTIONS...: what cmake is told beside these goes behind the dashes.
build_in() {
    local folder=$1
    local targets=()
    shift
    while [ "$1" != -- ]; do
        targets+=("$1")
        shift
    done
    shift
    cmake -S . -B "$folder" -G Ninja -DZORVEX_WERROR=ON -DZORVEX_EXAMPLES=OFF "$@" >/dev/null
    cmake --build "$folder" --target "${targets[@]}" >"$folder/build.log" ||
        { cat "$folder/build.log"; exit 1; }
}

build_fuzzers() {
    build_in "$build" any_bytes_{library,tool}_{fuzz,replay} -- --preset fuzz
    mkdir -p "$work/tmp"
    for room in library tool; do
        TMPDIR=$work/tmp "$build/$fuzz/any_bytes_${room}_replay" --seeds "$work/seeds/$room"
    done
}

# The room that a target is in: those of a room have their seeds there.
room_of() {
    for room in library tool; do
        [ ! -d "$work/seeds/$room/$1" ] || { echo "$room"; return; }
    done
    echo "There is no target $1. There are:" "$(basename -a "$work"/seeds/*/*)" >&2
    exit 2
}

# libfuzzer TARGET OPTIONS...
libfuzzer() {
    local target=$1
    shift
    (
        cd "$work/tmp"  # where no kernel file is
        OCL_ICD_VENDORS=$work/tmp TMPDIR=$work/tmp ZORVEX_FUZZ_TARGET=$target \
            "$build/$fuzz/any_bytes_$(room_of "$target")_fuzz" -max_len=4096 -timeout=10 \
            -rss_limit_mb=1024 -malloc_limit_mb=64 "$@"
    )
}

# keep_finding TARGET FILE
keep_finding() {
    mkdir -p "$fuzz/corpus/$1"
    cp "$2" "$fuzz/corpus/$1/"
    echo "FOUND: $fuzz/corpus/$1/$(basename "$2")"
    status=1
}

fuzz_target() {
    local target=$1
    local kept=$PWD/$fuzz/corpus/$target
    local log=$work/$target.log
    local findings=0
    rm -rf "$work/findings"
    mkdir -p "$work/findings" "$work/corpus/$target" "$kept"
    libfuzzer "$target" -runs="$runs" -print_final_stats=1 -artifact_prefix="$work/findings/" \
        "$work/corpus/$target" "$kept" "$work/seeds/$(room_of "$target")/$target" \
        >"$log" 2>&1 || findings=1
    for finding in "$work"/findings/*; do
        [ ! -f "$finding" ] || keep_finding "$target" "$finding"
    done
    [ $findings -eq 0 ] || { status=1; tail -n 60 "$log"; }
    ledger_add "$target" libFuzzer \
        "$(awk '/stat::number_of_executed_units/ { n = $2 } END { print n + 0 }' "$log")" $findings
}

# The fewest inputs that reach all that was reached.
keep_corpus() {
    local target=$1
    local kept=$PWD/$fuzz/corpus/$target
    rm -rf "$work/kept"
    mkdir -p "$work/kept" "$work/corpus/$target" "$kept"
    libfuzzer "$target" -set_cover_merge=1 -use_counters=0 "$work/kept" \
        "$kept" "$work/corpus/$target" >"$work/$target.log" 2>&1 ||
        { cat "$work/$target.log"; exit 1; }
    cp --no-clobber "$kept"/{crash,leak,oom,timeout}-* "$work/kept" 2>/dev/null || true
    rm -rf "$kept"
    cp -r "$work/kept" "$kept"
    echo "$target: $(find "$kept" -type f | wc -l) inputs, $(du -sb "$kept" | cut -f 1) bytes"
}

fuzz_with_afl() {
    build_in "$build-afl" any_bytes_library_fuzz -- -DZORVEX_TOOLS=OFF \
        -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZORVEX_SANITIZE=address,undefined \
        -DCMAKE_C_COMPILER=afl-clang-fast -DCMAKE_CXX_COMPILER=afl-clang-fast++
    build_in "$build-plain" any_bytes_mutator -- -DZORVEX_TOOLS=OFF -DCMAKE_BUILD_TYPE=Release
    local out=$work/afl
    rm -rf "$out"
    mkdir -p "$out/in"
    cp -r "$work/seeds/library/model_file/." "$fuzz/corpus/model_file/." "$out/in"
    (
        cd "$work/tmp"
        AFL_NO_UI=1 AFL_NO_AFFINITY=1 AFL_SKIP_CPUFREQ=1 AFL_I_DONT_CARE_ABOUT_MISSING_CRASHES=1 \
            AFL_CUSTOM_MUTATOR_LIBRARY=$build-plain/$fuzz/libany_bytes_mutator.so \
            OCL_ICD_VENDORS=$work/tmp TMPDIR=$work/tmp ZORVEX_FUZZ_TARGET=model_file \
            afl-fuzz -E "$runs" -t 1000 -m none -i "$out/in" -o "$out" \
            -- "$build-afl/$fuzz/any_bytes_library_fuzz" >"$work/afl.log" 2>&1
    )
    for finding in "$out"/default/{crashes,hangs}/id*; do
        [ ! -f "$finding" ] || keep_finding model_file "$finding"
    done
    cp "$out"/default/queue/id* "$work/corpus/model_file/"
    local executions findings
    read -r executions findings < <(awk -F': *' '
        $1 ~ /^execs_done/ { runs = $2 }
        $1 ~ /^saved_(crashes|hangs)/ { finds += $2 }
        END { print runs, finds + 0 }' "$out/default/fuzzer_stats")
    ledger_add model_file AFL++ "$executions" "$findings"
}

# Once for the sanitizers, once for the memory.
sweep() {
    local gibibyte=$((1 << 30))
    # Filling large models is slow where every comparison is traced for a fuzzer.
    build_in "$build-asan" damaged_model_files -- --preset fuzz -DZORVEX_TOOLS=OFF \
        -DZORVEX_SANITIZE=address,undefined,float-cast-overflow
    build_in "$build-plain" damaged_model_files -- -DZORVEX_TOOLS=OFF -DCMAKE_BUILD_TYPE=Release
    for sample in "$@"; do
        for folder in "$build-asan" "$build-plain"; do
            local said
            said=$("$folder/$fuzz/damaged_model_files" $gibibyte "$sample")
            echo "$sample: $said"
            ledger_add damaged_model_files sweep "${said%% *}" 0
        done
    done
}

runs=200000
action=fuzz_target
targets=()
while [ $# -gt 0 ]; do
    case $1 in
        --runs) runs=$2; shift ;;
        --afl) action=fuzz_with_afl ;;
        --keep) action=keep_corpus ;;
        --sweep) action=sweep ;;
        -*) echo "unknown option $1" >&2; exit 2 ;;
        *) targets+=("$1") ;;
    esac
    shift
done

scripts/dependencies.sh fuzz
if [ $action = sweep ]; then
    [ ${#targets[@]} -gt 0 ] || mapfile -t targets < <(seq 0 19)
    sweep "${targets[@]}"
    exit
fi
build_fuzzers
[ $action != fuzz_with_afl ] || { fuzz_with_afl; exit $status; }
[ ${#targets[@]} -gt 0 ] || mapfile -t targets < <(basename -a "$work"/seeds/*/*)
for target in "${targets[@]}"; do
    $action "$target"
done
exit $status
