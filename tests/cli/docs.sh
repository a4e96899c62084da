#!/usr/bin/env bash
# The man page and the completion scripts the build generates from the tool's
# option definitions: they render and load cleanly, list every command and
# option the tool has, complete what they should, and the copy of the man page
# kept in the tree is the one the tool generates now.
# Usage: docs.sh RTFCONV GENERATED_DIR SOURCE_DIR
source "$(dirname "$0")/lib.sh"
DOCS=${2:?generated folder}
SOURCE=${3:?source folder}

# The man page renders without a warning, through groff and through man.
groff -ww -man -z "$DOCS/rtfconv.1" 2>"$TMP/groff.err" && [ ! -s "$TMP/groff.err" ] ||
    fail "groff warns: $(cat "$TMP/groff.err")"
MANWIDTH=80 man -l "$DOCS/rtfconv.1" >"$TMP/man.txt" 2>"$TMP/man.err" && [ ! -s "$TMP/man.err" ] ||
    fail "man -l: $(cat "$TMP/man.err")"
for section in NAME SYNOPSIS DESCRIPTION COMMANDS "TEXT ENCODING" "EXIT STATUS" ENVIRONMENT EXAMPLES; do
    grep -qx "$section" "$TMP/man.txt" || fail "the man page has no $section section"
done
grep -q RTFCONV_LOG "$TMP/man.txt" || fail "the man page does not name RTFCONV_LOG"

# Every command and every option of its --help is in the man page and in both
# completion scripts.
source "$DOCS/rtfconv.bash"
for command in rtf2txt rtf2old old2rtf txt2rtf show; do
    grep -q "^   rtfconv $command " "$TMP/man.txt" || fail "the man page lacks the command $command"
    "$RTFCONV" "$command" --help | grep -oE '^  +(-[a-z], )?--[a-z0-9-]+' | grep -oE -- '--[a-z0-9-]+' >"$TMP/options"
    [ -s "$TMP/options" ] || fail "$command --help lists no option"
    while read -r option; do
        grep -qF -- "$option" "$TMP/man.txt" || fail "the man page lacks $command $option"
        grep -qF -- "$option" "$DOCS/_rtfconv" || fail "zsh completion lacks $command $option"
        COMP_WORDS=(rtfconv "$command" "$option") COMP_CWORD=2
        _rtfconv
        printf '%s\n' "${COMPREPLY[@]}" | grep -qx -- "$option" || fail "bash does not complete $command $option"
    done <"$TMP/options"
done

# The tree's copy (man ./rtfconv.1) is what the tool generates: `make man` refreshes it.
cmp -s "$SOURCE/rtfconv.1" "$DOCS/rtfconv.1" || fail "rtfconv.1 in the tree is stale: run 'make man'"

# Bash: the script parses, registers itself, and completes commands, option
# values and folders.
bash -n "$DOCS/rtfconv.bash" || fail "bash -n rtfconv.bash"
[ "$(complete -p rtfconv)" = "complete -o filenames -F _rtfconv rtfconv" ] ||
    fail "complete -p rtfconv: $(complete -p rtfconv 2>&1)"
# complete_words WORD...: the completions of the last word.
complete_words() {
    COMP_WORDS=(rtfconv "$@") COMP_CWORD=$#
    _rtfconv
    [ "${#COMPREPLY[@]}" -eq 0 ] || printf '%s ' "${COMPREPLY[@]}"
}
mkdir "$TMP/folder"
: >"$TMP/file.rtf"
while IFS='|' read -r words want; do
    # shellcheck disable=SC2086
    got=$(cd "$TMP" && complete_words $words "")
    [ "$got" = "$want" ] || fail "completing '$words': got '$got', expected '$want'"
done <<'EOF'
|rtf2txt rtf2old old2rtf txt2rtf show 
rtf2txt --newline|lf crlf cr 
rtf2old --source|stream ptr 
rtf2txt --output-dir|folder 
rtf2txt --buffer|
EOF
[ "$(complete_words rtf2)" = "rtf2txt rtf2old " ] || fail "completing rtf2: $(complete_words rtf2)"
[ "$(complete_words -q show --exp)" = "--explain " ] || fail "completing show --exp: $(complete_words -q show --exp)"

# Zsh: the function file parses (when zsh is installed).
if command -v zsh >/dev/null; then
    zsh -n "$DOCS/_rtfconv" || fail "zsh -n _rtfconv"
    head -n 1 "$DOCS/_rtfconv" | grep -qx '#compdef rtfconv' || fail "_rtfconv does not begin with #compdef"
fi

finish
