#!/bin/sh
# Holds the manual pages against the program and the header.
#   manual-test.sh options PAGE COMPLETION PROGRAM    every option and command is in both, and no others in the page
#   manual-test.sh functions PAGE HEADER-DIRECTORY    every function and result code is in the page
#   manual-test.sh lint PAGE...                       77 where neither mandoc nor man is there
set -eu
what="$1"
shift
failed=0
fail() {
    echo "$*" >&2
    failed=1
}

case "$what" in
    options)
        page="$1" completion="$2" program="$3"
        commands=$("$program" --help | sed -n '/^Subcommands:/,$s/^  \([a-z]*\) .*/\1/p')
        [ -n "$commands" ] || fail "the program lists no command"
        options="--version"
        for command in $commands; do
            grep -q "^.It Cm $command\$" "$page" || fail "the page lacks the command $command"
            options="$options $("$program" "$command" --help | sed -n 's/^  \(-h,\)\{0,1\}--\([a-z-]*\) .*/--\2/p')"
        done
        for option in $options; do
            grep -q -- "^\.It .*Fl -${option#--}\( \|\$\)" "$page" || fail "the page lacks $option"
            grep -q -- "--\?${option#--}\b" "$completion" || fail "the completion lacks $option"
        done
        for option in $(sed -n 's/^\.It .*Fl -\([a-z-]*\).*/--\1/p' "$page"); do
            case " $(echo "$options" | tr '\n' ' ') " in
                *" $option "*) ;;
                *) fail "the program has no $option" ;;
            esac
        done ;;
    functions)
        page="$1" headers="$2"
        functions=$(sed -n 's/.*VORREL_EXPORT VrError \(Vorrel_[A-Za-z]*\)(.*/\1/p' "$headers/Vorrel.h")
        [ "$(echo "$functions" | wc -l)" -eq 22 ] || fail "the header has not 22 functions"
        for function in $functions; do
            grep -q "^\.Fn $function " "$page" || fail "the page lacks $function"
        done
        for code in $(sed -n 's/^    \(Vr\(Success\|Error[A-Za-z]*\)\) = .*/\1/p' "$headers/VrError.h"); do
            grep -q "^\.It Dv $code\$" "$page" || fail "the page lacks $code"
        done ;;
    lint)
        if command -v mandoc >/dev/null; then
            mandoc -Tlint -W warning "$@" || failed=1
        elif command -v man >/dev/null; then
            for page in "$@"; do
                said=$(LC_ALL=C.UTF-8 man --warnings -l "$page" 2>&1 >/dev/null)
                [ -z "$said" ] || fail "$page: $said"
            done
        else
            exit 77
        fi ;;
esac
exit $failed
