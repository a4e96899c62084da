# Helpers shared by the rtfconv command-line tests (sourced, not run).
# Each script takes the rtfconv binary as its first argument.
set -u
RTFCONV=${1:?usage: $0 path/to/rtfconv}
TMP=$(mktemp -d)
trap 'rm -rf "$TMP"' EXIT
failures=0

fail() {
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}

# run CMD...: runs CMD with stdout in $TMP/out and stderr in $TMP/err, status in $status.
run() {
    "$@" >"$TMP/out" 2>"$TMP/err"
    status=$?
}

# expect_status WANT CMD...
expect_status() {
    local want=$1
    shift
    run "$@"
    [ "$status" -eq "$want" ] || fail "status $status, expected $want: $* (stderr: $(head -c 300 "$TMP/err"))"
}

# expect_file_bytes FILE PRINTF-FORMAT: FILE holds exactly the bytes of the format.
expect_file_bytes() {
    printf "$2" >"$TMP/expected"
    cmp -s "$1" "$TMP/expected" || fail "$1: got $(od -An -c "$1" | head -c 400), expected $(od -An -c "$TMP/expected" | head -c 400)"
}

# expect_one_error_line TEXT: stderr is one line that contains TEXT.
expect_one_error_line() {
    [ "$(wc -l <"$TMP/err")" -eq 1 ] && grep -qF -- "$1" "$TMP/err" ||
        fail "stderr should be one line naming '$1', was: $(cat "$TMP/err")"
}

finish() {
    if [ "$failures" -eq 0 ]; then
        echo "all passed"
    else
        echo "$failures failure(s)"
        exit 1
    fi
}
