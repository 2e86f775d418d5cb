# tests/integration/filesum_test.sh FILESUM BACKEND - the example against the utility whose output it prints.
export LC_ALL=C ZVXKVT_IO="$2"
filesum=$1
folder=$(mktemp -d) && cd "$folder" || exit 1
trap 'chmod -R u+rwx "$folder"; rm -rf "$folder"' EXIT
fail() {
    echo "$*"
    cat err
    exit 1
}
# Permissions bind whoever runs the tests.
[ "$(id -u)" = 0 ] && bound='setpriv --bounding-set -dac_override,-dac_read_search' || bound=
# Lines, not records: a name may hold a line feed.
expect() { $bound find tree -type f -print0 2> /dev/null | $bound xargs -0 cksum 2> /dev/null | sort > expected; }

# Sizes around the chunk and the step of the checksum, odd names, folders in folders.
seed=0
fill() { seed=$((seed + 1)) && seq $seed 700000 | head -c "$1" > "tree/$2"; }
for d in d0 d1 d2 "d0/sub 4" d1/sub "d2/sub 6/deep"; do
    mkdir -p "tree/$d"
    for size in 0 1 15 16 17 255 4096 32767 32768 32769 65536 100001; do fill $size "$d/f$size"; done
done
for name in "with space" 'line
feed' 'back\slash' -dash "$(printf '\303\244\377')"; do fill 4321 "$name"; done
fill 3145728 "three megabytes"
ln -s d0 "tree/link to folder"
ln -s nowhere tree/dangling

expect
[ "$(wc -l < expected)" = 79 ] || fail "$(wc -l < expected) lines are expected"
for schedulers in 1 2 8; do
    for mode in "--user-threads 64" "--user-threads 1000" --threads --disable-fibers; do
        "$filesum" --schedulers $schedulers $mode tree > out 2> err || fail "$mode ends with $?"
        sort out | cmp - expected || fail "$mode with $schedulers schedulers differs"
        case $mode in
            --user*) grep -q "$ZVXKVT_IO" err || exit 77  # the back end is refused here
                     grep -q " $schedulers schedulers" err || fail "$mode $schedulers" ;;
            *) grep -q " 0 schedulers" err || fail "$mode" ;;
        esac
    done
done
# What cannot be read is named, and the rest is summed.
chmod 0 tree/d1/f4096 tree/d2
expect
for mode in "" --threads; do
    $bound "$filesum" $mode tree tree/missing > out 2> err && fail "$mode tells no failure"
    sort out | cmp - expected || fail "$mode differs"
    for text in "d1/f4096: Permission denied" "d2: Permission denied" "missing: No such file or directory"; do
        grep -qx "filesum: tree/$text" err || fail "$mode does not tell: $text"
    done
done
