# Completion of ceilmeter's command line for bash. Needs no other package; with bash-completion the words behind the
# application are completed as the application's own.

# Puts into COMPREPLY those of the words $2... that begin with $1.
_ceilmeter_words() {
  local word=$1
  shift
  mapfile -t COMPREPLY < <(compgen -W "$*" -- "$word")
}

# Puts files that begin with $1 into COMPREPLY. With $2 "executable" only folders and programs are kept.
_ceilmeter_files() {
  local file
  COMPREPLY=()
  while IFS= read -r file; do
    if [[ ${2:-} != executable || -d $file || -x $file ]]; then
      COMPREPLY+=("$file")
    fi
  done < <(compgen -f -- "$1")
  compopt -o filenames 2> /dev/null
}

# Puts the values of option $1 that begin with $2 into COMPREPLY.
_ceilmeter_values() {
  case $1 in
    --mode) _ceilmeter_words "$2" total region ;;
    --phase) _ceilmeter_words "$2" perfmon bintracer benchmarks ;;
    --benchmarks_num_threads) COMPREPLY=() ;;
    -l | --log-level) _ceilmeter_words "$2" none fatal warn info debug trace ;;
    --log-file)
      _ceilmeter_files "$2"
      local -a files=("${COMPREPLY[@]}")
      _ceilmeter_words "$2" stdout stderr
      COMPREPLY+=("${files[@]}")
      ;;
    -o | --output) _ceilmeter_files "$2" ;;
  esac
}

_ceilmeter() {
  # bash has split words at "="; they are put together again. starts[i] is where words[i] begins in COMP_WORDS.
  local -a words=() starts=()
  local at join=
  for ((at = 1; at <= COMP_CWORD; ++at)); do
    if [[ ${#words[@]} -gt 0 && (-n $join || ${COMP_WORDS[at]} == =) ]]; then
      words[-1]+=${COMP_WORDS[at]}
    else
      words+=("${COMP_WORDS[at]}")
      starts+=("$at")
    fi
    join=
    [[ ${COMP_WORDS[at]} != = ]] || join=1
  done
  COMPREPLY=()

  # Looks at the words before the current one: is the last an option that waits for its value, or has the application come?
  local last=$((${#words[@]} - 1)) waiting='' closed=''
  local word=${words[last]}
  for ((at = 0; at < last; ++at)); do
    if [[ -n $waiting ]]; then
      waiting=
      continue
    fi
    case ${words[at]} in
      --)
        closed=1
        ((++at))
        ((at == last)) || {
          _ceilmeter_application "${starts[at]}"
          return
        }
        ;;
      -o | -l | --output | --mode | --phase | --benchmarks_num_threads | --log-level | --log-file)
        waiting=${words[at]}
        ;;
      -*) ;;
      *)
        _ceilmeter_application "${starts[at]}"
        return
        ;;
    esac
  done

  if [[ -n $waiting ]]; then
    _ceilmeter_values "$waiting" "$word"
  elif [[ -z $closed && $word == --*=* ]]; then
    _ceilmeter_values "${word%%=*}" "${word#*=}"
    # If "=" does not break words, bash replaces the whole word, so the option has to be in front again.
    if [[ $COMP_WORDBREAKS != *=* ]]; then
      COMPREPLY=("${COMPREPLY[@]/#/${word%%=*}=}")
    fi
  elif [[ -z $closed && $word == -* ]]; then
    _ceilmeter_words "$word" --mode= --phase= --benchmarks_num_threads= --output= --log-level= --log-file= --log-append \
      --help --version -o -l -h -v
    [[ ${COMPREPLY[0]:-} != *= ]] || compopt -o nospace 2> /dev/null
  else
    _ceilmeter_files "$word" executable
  fi
}

# Completes the words of the application, which is word $1 of COMP_WORDS.
_ceilmeter_application() {
  if declare -F _command_offset > /dev/null; then
    _command_offset "$1"
  else
    _ceilmeter_files "${COMP_WORDS[COMP_CWORD]}"
  fi
}

complete -F _ceilmeter ceilmeter
