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
    for command in process trace split info manifest settings; do
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

# The words completion offers, from the help the program gives: the commands, every option the
# top-level help lists, the types --format takes, and each setting --set takes with its values (a
# setting of type "picture" can't be given by name and isn't offered).
commands="$("$cli" --help | awk '/^Usage:/ {u=1; next} u && /^  cutlark-cli / {print $2} /^$/ {u=0}' | sort -u | tr '\n' ' ')"
topics="$(echo "$commands" | tr ' ' '\n' | grep -vxE 'help|version|' | tr '\n' ' ')"
options="$("$cli" --help | grep -oE -- '(^|[ ,])--[a-z][a-z0-9-]*' | grep -oE -- '--[a-z0-9-]+' | sort -u | tr '\n' ' ')"
options="$options--help --version"
formats="$("$cli" process --help | sed -n 's/.*--format TYPE *write \(.*\) (default.*/\1/p' | sed 's/,//g; s/ or / /')"
settingTypes="$("$cli" help settings | awk '/^  [A-Za-z]+ / {t=$2; sub(/,$/, "", t); print $1, t}' | grep -v ' picture$')"
settings="$(echo "$settingTypes" | awk '{print $1}' | tr '\n' ' ')"
# "name) values ;;" for each setting with a fixed set of values; path settings complete files.
valueCases="$(echo "$settingTypes" | awk '
    $2 == "bool" {printf "    %s) words=\"true false\" ;;\n", $1}
    $2 ~ /\|/ {v=$2; gsub(/\|/, " ", v); printf "    %s) words=\"%s\" ;;\n", $1, v}
    $2 == "path" {printf "    %s) files=1 ;;\n", $1}')"
[ -n "$formats" ] && [ -n "$settings" ] && [ -n "$commands" ] || { echo "make-manuals.sh: the help changed its form" >&2; exit 1; }

cat > "$out/cutlark-cli.bash" <<EOF
# bash completion for cutlark-cli $version, written from its own help.
_cutlark_cli_setting_values() { # NAME: sets words (or files=1) to what NAME takes
    words= files=
    case "\$1" in
$valueCases
    esac
}
_cutlark_cli() {
    local cur prev words files typed before name value
    cur="\${COMP_WORDS[COMP_CWORD]}"
    prev="\${COMP_WORDS[COMP_CWORD-1]}"
    if [ "\$COMP_CWORD" -eq 1 ]; then
        COMPREPLY=(\$(compgen -W "$commands--help --version" -- "\$cur"))
        return
    fi
    # "--set name=va": bash may have split the word at "=", so read it from the line itself.
    typed="\${COMP_LINE:0:COMP_POINT}"
    read -ra before <<<"\$typed"
    [[ "\$typed" == *" " ]] && before+=("")
    if [ "\${#before[@]}" -ge 2 ] && [ "\${before[-2]}" = --set ] && [[ "\${before[-1]}" == *=* ]]; then
        name="\${before[-1]%%=*}" value="\${before[-1]#*=}"
        _cutlark_cli_setting_values "\$name"
        if [ -n "\$files" ]; then COMPREPLY=(\$(compgen -f -- "\$value"))
        else COMPREPLY=(\$(compgen -W "\$words" -- "\$value")); fi
        [[ "\$COMP_WORDBREAKS" == *=* ]] || COMPREPLY=("\${COMPREPLY[@]/#/\$name=}")
        return
    fi
    case "\$prev" in
    --set)
        compopt -o nospace 2>/dev/null
        COMPREPLY=(\$(compgen -S = -W "$settings" -- "\$cur"))
        return ;;
    --format) COMPREPLY=(\$(compgen -W "$formats" -- "\$cur")); return ;;
    --preset) COMPREPLY=(\$(compgen -f -X '!*.json' -- "\$cur")); compopt -o plusdirs 2>/dev/null; return ;;
    -o|--output|--manifest|--resume|--files-from) COMPREPLY=(\$(compgen -f -- "\$cur")); return ;;
    -j|--jobs|--quality|--shard|--max-megapixels) return ;;
    help) COMPREPLY=(\$(compgen -W "$topics" -- "\$cur")); return ;;
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
    echo "    compadd -- ${commands}--help --version"
    echo "    return"
    echo "fi"
    echo "if [[ \$words[CURRENT-1] == --set && \$PREFIX == *=* ]]; then"
    echo "    local name=\${PREFIX%%=*}"
    echo "    compset -P '*='"
    echo "    case \$name in"
    echo "$valueCases" | sed -e 's/words="\(.*\)" ;;/compadd -- \1 ;;/' -e 's/files=1 ;;/_files ;;/'
    echo "    esac"
    echo "    return"
    echo "fi"
    echo "case \$words[CURRENT-1] in"
    echo "--set) compadd -S = -- \$settings; return ;;"
    echo "--format) compadd -- ${formats}; return ;;"
    echo "--preset) _files -g '*.json'; return ;;"
    echo "-o|--output|--manifest|--resume|--files-from) _files; return ;;"
    echo "-j|--jobs|--quality|--shard|--max-megapixels) return ;;"
    echo "help) compadd -- ${topics}; return ;;"
    echo "esac"
    echo "if [[ \$PREFIX == -* ]]; then compadd -- ${options}; else _files; fi"
} > "$out/_cutlark-cli"
