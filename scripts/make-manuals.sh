#!/usr/bin/env bash
# Writes the man pages of both programs and the shell completions of cutlark-cli into OUT_DIR, from
# the programs' own help (so nothing is written twice): cutlark.1, cutlark-cli.1,
# cutlark-cli.bash and _cutlark-cli (zsh).
# Usage: make-manuals.sh CUTLARK CUTLARK_CLI OUT_DIR
set -euo pipefail
window="$1" cli="$2" out="$3"
mkdir -p "$out"
export QT_QPA_PLATFORM=offscreen
version="$("$cli" --version | awk '{print $2}')"
date="$(date -u -d "@${SOURCE_DATE_EPOCH:-$(date +%s)}" +%Y-%m-%d)"

# Help text as roff: escape backslashes and leading dots or quotes, keep the lines as they are.
roff() { sed -e 's/\\/\\e/g' -e 's/^\([.'"'"']\)/\\\&\1/' -e 's/-/\\-/g'; }

{
    echo ".TH CUTLARK 1 \"$date\" \"cutlark $version\" \"User Commands\""
    echo ".SH NAME"
    echo "cutlark \\- prepare images: trim, key out white or cut out the subject, outline, pad, resize, trace"
    echo ".SH SYNOPSIS"
    echo ".B cutlark"
    echo "[\\fIFILE\\fR | \\fIFOLDER\\fR]..."
    echo ".SH DESCRIPTION"
    echo ".nf"
    "$window" --help | roff
    echo ".fi"
    echo ".SH SEE ALSO"
    echo ".BR cutlark\\-cli (1)"
} > "$out/cutlark.1"

{
    echo ".TH CUTLARK-CLI 1 \"$date\" \"cutlark-cli $version\" \"User Commands\""
    echo ".SH NAME"
    echo "cutlark-cli \\- Cutlark's image pipeline, tracer and collage splitter for batches"
    echo ".SH SYNOPSIS"
    echo ".nf"
    "$cli" --help | roff
    echo ".fi"
    for command in process trace split info settings; do
        echo ".SH ${command^^}"
        echo ".nf"
        if [ "$command" = settings ]; then "$cli" help settings | roff; else "$cli" "$command" --help | roff; fi
        echo ".fi"
    done
    echo ".SH EXIT STATUS"
    echo "0 when every input was done, 1 when any input failed (each is named on standard error),"
    echo "2 when the command line itself was wrong."
    echo ".SH SEE ALSO"
    echo ".BR cutlark (1)"
} > "$out/cutlark-cli.1"

# The words completion offers, from the help the program gives.
commands="process trace split info settings help"
options="$("$cli" process --help | grep -oE -- '--[a-z][a-z-]*' | sort -u | tr '\n' ' ')"
options="$options $("$cli" trace --help | grep -oE -- '--[a-z][a-z-]*' | sort -u | tr '\n' ' ')"
options="$(echo "$options --help --version" | tr ' ' '\n' | sort -u | tr '\n' ' ')"
settings="$("$cli" settings | grep -oE '^ *"[A-Za-z]+"' | tr -d ' "' | tr '\n' ' ')"

cat > "$out/cutlark-cli.bash" <<EOF
# bash completion for cutlark-cli $version, written from its own help.
_cutlark_cli() {
    local cur prev
    cur="\${COMP_WORDS[COMP_CWORD]}"
    prev="\${COMP_WORDS[COMP_CWORD-1]}"
    if [ "\$COMP_CWORD" -eq 1 ]; then
        COMPREPLY=(\$(compgen -W "$commands --help --version" -- "\$cur"))
        return
    fi
    case "\$prev" in
    --set)
        compopt -o nospace 2>/dev/null
        COMPREPLY=(\$(compgen -S = -W "$settings" -- "\$cur"))
        return ;;
    --preset) COMPREPLY=(\$(compgen -f -X '!*.json' -- "\$cur")); compopt -o plusdirs 2>/dev/null; return ;;
    -o|--output) COMPREPLY=(\$(compgen -f -- "\$cur")); return ;;
    -j|--jobs) return ;;
    help) COMPREPLY=(\$(compgen -W "process trace split info settings" -- "\$cur")); return ;;
    esac
    if [[ "\$cur" == -* ]]; then
        COMPREPLY=(\$(compgen -W "$options" -- "\$cur"))
    else
        COMPREPLY=(\$(compgen -f -- "\$cur"))
    fi
}
complete -o filenames -F _cutlark_cli cutlark-cli
EOF

{
    echo "#compdef cutlark-cli"
    echo "# zsh completion for cutlark-cli $version, written from its own help."
    echo "local -a settings=(${settings})"
    echo "if (( CURRENT == 2 )); then"
    echo "    _values 'command' ${commands} --help --version"
    echo "    return"
    echo "fi"
    echo "case \$words[CURRENT-1] in"
    echo "--set) compadd -S = -- \$settings; return ;;"
    echo "--preset) _files -g '*.json'; return ;;"
    echo "-o|--output) _files; return ;;"
    echo "-j|--jobs) return ;;"
    echo "esac"
    echo "if [[ \$PREFIX == -* ]]; then compadd -- ${options}; else _files; fi"
} > "$out/_cutlark-cli"
