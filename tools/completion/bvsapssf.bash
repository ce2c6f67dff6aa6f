# bash completion for bvssf, bvstore, bvtrace and bvtsa.  Commands and
# options are read from the tools' own help, so they never fall behind it;
# anything else completes as a file name.

# The first words of the entries of one section of `TOOL --help`.
_bvsapssf_terms() {
  "$1" --help 2>/dev/null | awk -v title="$2:" '
    $0 == title { inside = 1; next }
    /^[^ ]/ { inside = 0 }
    inside && /^  [^ ]/ { print $1 }'
}

_bvsapssf() {
  local tool=${COMP_WORDS[0]} cur=${COMP_WORDS[COMP_CWORD]} words
  COMPREPLY=()
  if [ "${tool##*/}" = bvtsa ]; then
    [[ $cur == -* ]] && words="$(_bvsapssf_terms "$tool" Options) --help --version"
  elif [ "$COMP_CWORD" -eq 1 ]; then
    words="$(_bvsapssf_terms "$tool" Commands) help --help --version"
  elif [ "${COMP_WORDS[1]}" = help ]; then
    [ "$COMP_CWORD" -eq 2 ] && words=$(_bvsapssf_terms "$tool" Commands)
  elif [[ $cur == -* ]]; then
    # The options in the command's usage line.
    words="$("$tool" help "${COMP_WORDS[1]}" 2>/dev/null | head -n 1 | grep -oE -- '[[ ]-{1,2}[a-z][a-z-]*' | tr -d '[ ') --help"
  fi
  [ -n "$words" ] && COMPREPLY=($(compgen -W "$words" -- "$cur"))
  return 0
}
complete -o default -F _bvsapssf bvssf bvstore bvtrace bvtsa
