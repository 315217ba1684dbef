# bash completion of qlk.

_qlk_options() {
  case $1 in
    '') echo --help --version ;;
    connect) echo --stay ;;
    capabilities) echo --json ;;
    status) echo --of-version --json ;;
    subscribe) echo --namespace --dynamic --element --count --json --reconnect --reconnect-pause ;;
    publish) echo --namespace --dynamic --file ;;
    query) echo --namespace --dynamic --file --repeat --interval --in-flight --deadline --json --quiet ;;
    serve) echo --namespace --dynamic --file --element --limit --reconnect --reconnect-pause --quiet ;;
    propose | modify) echo --namespace --dynamic --define-version --query --action --about --platform ;;
    authorized) echo --quiet ;;
    top) echo --ask --count --json --reconnect --reconnect-pause ;;
    bulk) echo --request --bulk-ca --expect --limit --json --count ;;
  esac
}

_qlk() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} command='' word i
  local commands='doctor connect capabilities status subscribe publish query serve propose modify authorized token bulk top'
  local connection='--help --profile --host --race-hosts --user --certificate --key --ca --crl --passphrase-fd --group --description --sasl-response --timeout --trace --tls-key-log --verbose'
  COMPREPLY=()
  for ((i = 1; i < COMP_CWORD; i++)); do
    word=${COMP_WORDS[i]}
    if [[ $word == -- && $command == serve ]]; then
      # What follows is another command with its own arguments.
      if ((i + 1 == COMP_CWORD)); then
        mapfile -t COMPREPLY < <(compgen -c -- "$current")
      else
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
      fi
      compopt -o filenames 2>/dev/null
      return
    fi
    [[ -n $command || $word == -* ]] || command=$word
  done
  case $previous in
    --profile | --certificate | --key | --ca | --crl | --tls-key-log | --bulk-ca | --file | --request | -f)
      mapfile -t COMPREPLY < <(compgen -f -- "$current")
      compopt -o filenames 2>/dev/null
      return
      ;;
    -r)
      [[ $command != bulk ]] || mapfile -t COMPREPLY < <(compgen -f -- "$current")
      compopt -o filenames 2>/dev/null
      return
      ;;
    --host | --user | --passphrase-fd | --group | --description | --timeout | --namespace | --element | --count | --repeat | --interval | --in-flight | --deadline | --reconnect-pause | \
      --limit | --of-version | --define-version | --query | --action | --about | --platform | --expect | -n | -e | -i | -l) return ;;
  esac
  if [[ $previous == --sasl-response ]]; then
    mapfile -t COMPREPLY < <(compgen -W "user-name bare-jid none" -- "$current")
    return
  fi
  if [[ -z $command ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$commands $(_qlk_options '')" -- "$current")
  elif [[ $current == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$(_qlk_options "$command") $connection" -- "$current")
  fi
}

complete -F _qlk qlk
