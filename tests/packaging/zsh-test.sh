#!/bin/sh
# Lets zsh read the completion without running it.
#   zsh-test.sh COMPLETION
set -eu

if ! command -v zsh >/dev/null; then
    echo "skipped: zsh is not installed"
    exit 77
fi
zsh -n "$1"
