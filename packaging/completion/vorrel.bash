# Completion of vorrel in bash; needs nothing but bash.

# $1: what is typed; the rest: what fits. Keeps blanks within a line of standard input.
_vorrel_from_lines() {
    local line
    while IFS= read -r line; do
        [[ $line == "$1"* ]] && COMPREPLY+=("$(printf '%q' "$line")")
    done
}

# Files with one of the endings, and directories, into which the way may lead.
_vorrel_files() {
    local current="$1" ending
    shift
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -d -- "$current")
    for ending in "$@"; do
        mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -f -X "!*.$ending" -- "$current")
    done
}

# What stands behind --simulate=, of which bash makes many words: "=" is one of its own.
# $1: all of it so far; $2: the last word of it.
_vorrel_simulated() {
    local last="${1##*,}" current="$2" kept=""
    [[ $current == "=" ]] && current=""
    if [[ $last == source=* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "tone sweep noise counter silence file:" -- "$current")
    elif [[ $last != *=* ]]; then
        [[ $current == *,* ]] && kept="${current%,*},"
        compopt -o nospace 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -P "$kept" -W "source= frequency= level= seed= channels= bits= dsd= speed=
            loop= recorders= manual= unplug=" -- "$last")
    fi
}

_vorrel() {
    local current="${COMP_WORDS[COMP_CWORD]}" previous="${COMP_WORDS[COMP_CWORD - 1]}"
    local command="" type=pcm words="" text="" index positional=0
    COMPREPLY=()

    for ((index = COMP_CWORD; index > 1; --index)); do
        if [[ ${COMP_WORDS[index - 1]} == --simulate && ${COMP_WORDS[index]} == "=" ]]; then
            _vorrel_simulated "${text}" "$current"
            return
        fi
        [[ ${COMP_WORDS[index]} == "=" || ${COMP_WORDS[index - 1]} == "=" ]] || break
        text="${COMP_WORDS[index]}$text"
    done
    for ((index = 1; index < COMP_CWORD; ++index)); do
        case "${COMP_WORDS[index]}" in
            devices | info | record | salvage | doctor)
                [[ -n $command ]] && ((++positional))
                command="${command:-${COMP_WORDS[index]}}" ;;
            --type) type="${COMP_WORDS[index + 1]}" ;;
            --device | --rate | --bits | --duration | --start-at | --pre-roll | --gain | --title | --artist | \
                --album | --album-artist | --tag | --range | --split-at | --max-file-time | --waveform | \
                --hook | --temp-dir | =) ((++index)) ;;
            -*) ;;
            *) ((++positional)) ;;
        esac
        [[ ${COMP_WORDS[index]} == --type ]] && ((++index))
    done

    case "$previous" in
        --type) words="pcm dsd" ;;
        --bits) words="16 24 32" ;;
        --rate)
            words="44100 48000 96000 192000 384000"
            [[ $type == dsd ]] && words="2822400 5644800 11289600" ;;
        --device)
            _vorrel_from_lines "$current" < <("${COMP_WORDS[0]}" devices 2>/dev/null)
            return ;;
        --tag)
            compopt -o nospace 2>/dev/null
            words="title= artist= album= album-artist=" ;;
        --temp-dir)
            _vorrel_files "$current"
            return ;;
        --waveform)
            _vorrel_files "$current" png svg
            return ;;
        --hook)
            mapfile -t COMPREPLY < <(compgen -c -- "$current")
            return ;;
        --duration | --start-at | --pre-roll | --gain | --title | --artist | --album | --album-artist | \
            --range | --split-at | --max-file-time) return ;;
    esac
    if [[ -n $words ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
        return
    fi

    if [[ $current == -* ]]; then
        case "$command" in
            "") words="--help --version" ;;
            devices) words="--help --json --simulate" ;;
            info) words="--help --json --simulate --device" ;;
            doctor) words="--help --json --simulate --device --temp-dir" ;;
            salvage) words="--help --json --bits --force --remove --temp-dir" ;;
            record)
                words="--help --json --simulate --device --type --rate --bits --duration --start-at --pre-record
                    --pre-roll --gain --title --artist --album --album-artist --tag --range --split-at
                    --max-file-time --waveform --hook --force --quiet --temp-dir" ;;
        esac
        mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
        return
    fi
    case "$command" in
        "") mapfile -t COMPREPLY < <(compgen -W "devices info record salvage doctor" -- "$current") ;;
        record)
            if [[ $type == dsd ]]; then
                _vorrel_files "$current" dsf
            else
                _vorrel_files "$current" wav
            fi ;;
        salvage)
            if ((positional == 0)); then
                _vorrel_from_lines "$current" < <("${COMP_WORDS[0]}" salvage --json 2>/dev/null |
                    sed -n 's/.*"take":"\([^"]*\)".*/\1/p')
            else
                _vorrel_files "$current" wav dsf
            fi ;;
    esac
}

complete -F _vorrel vorrel
