#!/usr/bin/env bash
# The main job from beginning to end: train, evaluate, recommend.
#   scripts/demo.sh         on a data set that the tool generates
#   scripts/demo.sh FILE    on a file of user,item[,rating[,timestamp]] lines
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/dependencies.sh build
cmake -S . -B build/demo -G Ninja -DZORVEX_TESTS=OFF >/dev/null
cmake --build build/demo >/dev/null
zorvex=build/demo/tools/zorvex

work=build/demo/work
mkdir -p "$work"
run() {
    echo
    echo "\$ zorvex $*"
    "$zorvex" "$@"
}

data=${1:-}
if [ -z "$data" ]; then
    data=$work/interactions.csv
    run generate --users 2000 --items 1000 --interactions 60000 --seed 1 --output "$data"
fi
run train "$data" --output "$work/model.zxm" --algorithm als --holdout leave-one-out --seed 1 \
    --write-train "$work/train.csv" --write-test "$work/test.csv"
run evaluate "$work/model.zxm" --test "$work/test.csv" --train "$work/train.csv"
users=$(awk -F, 'NR > 1 && !seen[$1]++ { print $1; if (++shown == 2) exit }' "$work/train.csv")
for user in $users; do
    run recommend "$work/model.zxm" --user "$user" -k 5 --exclude "$work/train.csv"
done
echo
echo "The model is $work/model.zxm; build/demo/tools/zorvex --help says what else can be done with it."
