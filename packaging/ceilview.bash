# Completion of ceilview's command line for bash. Needs no other package.

# Puts into COMPREPLY those of the words $2... that begin with $1.
_ceilview_words() {
  local word=$1
  shift
  mapfile -t COMPREPLY < <(compgen -W "$*" -- "$word")
}

# Puts files that begin with $1 into COMPREPLY. $2 "folder" keeps only folders, "json" folders and JSON files.
_ceilview_files() {
  local file
  COMPREPLY=()
  while IFS= read -r file; do
    if [[ -z ${2:-} || -d $file || ($2 == json && $file == *.json) ]]; then
      COMPREPLY+=("$file")
    fi
  done < <(compgen -f -- "$1")
  compopt -o filenames 2> /dev/null
}

# Puts the values of option $1 that begin with $2 into COMPREPLY.
_ceilview_values() {
  case $1 in
    --level) _ceilview_words "$2" L1 L2 L3 DDR ;;
    --blocks) _ceilview_words "$2" all ;;
    --baseline) _ceilview_files "$2" json ;;
    --modules) _ceilview_files "$2" folder ;;
    -o | --output) _ceilview_files "$2" ;;
    *) COMPREPLY=() ;;
  esac
}

_ceilview() {
  # bash has split words at "="; they are put together again.
  local -a words=()
  local at join=
  for ((at = 1; at <= COMP_CWORD; ++at)); do
    if [[ ${#words[@]} -gt 0 && (-n $join || ${COMP_WORDS[at]} == =) ]]; then
      words[-1]+=${COMP_WORDS[at]}
    else
      words+=("${COMP_WORDS[at]}")
    fi
    join=
    [[ ${COMP_WORDS[at]} != = ]] || join=1
  done
  COMPREPLY=()

  # Is the current word the value of the option before it, and have the options ended?
  local last=$((${#words[@]} - 1)) waiting='' closed=''
  local word=${words[last]}
  for ((at = 0; at < last; ++at)); do
    if [[ -n $waiting ]]; then
      waiting=
      continue
    fi
    [[ -z $closed ]] || continue
    case ${words[at]} in
      --) closed=1 ;;
      -o | --output | --baseline | --threads | --level | --frame | --title | --blocks) waiting=${words[at]} ;;
    esac
  done

  if [[ -n $waiting ]]; then
    _ceilview_values "$waiting" "$word"
  elif [[ -z $closed && $word == --*=* ]]; then
    _ceilview_values "${word%%=*}" "${word#*=}"
    # If "=" does not break words, bash replaces the whole word, and does not see that it ends with a folder.
    if [[ $COMP_WORDBREAKS != *=* ]]; then
      if [[ ${#COMPREPLY[@]} -eq 1 && -d ${COMPREPLY[0]} ]]; then
        COMPREPLY[0]+=/
        compopt -o nospace 2> /dev/null
      fi
      COMPREPLY=("${COMPREPLY[@]/#/${word%%=*}=}")
    fi
  elif [[ -z $closed && $word == -* ]]; then
    _ceilview_words "$word" --output= --svg --csv --table --baseline= --ranks --threads= --level= --frame= --title= \
      --modules --blocks= --short-paths --open --help --version -o -h -v
    [[ ${COMPREPLY[0]:-} != *= ]] || compopt -o nospace 2> /dev/null
  else
    _ceilview_files "$word" json
  fi
}

complete -F _ceilview ceilview
