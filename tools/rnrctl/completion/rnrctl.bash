# Completion of rnrctl for bash; made by rnrctl completion.
_rnrctl() {
  local word=${COMP_WORDS[COMP_CWORD]} words= i
  for ((i = 1; i < COMP_CWORD; ++i)); do
    case "$words ${COMP_WORDS[i]}" in
      " register") words=" register" ;;
      " resign") words=" resign" ;;
      " ping") words=" ping" ;;
      " status") words=" status" ;;
      " doctor") words=" doctor" ;;
      " sessions") words=" sessions" ;;
      " sessions prune") words=" sessions prune" ;;
      " sessions reset") words=" sessions reset" ;;
      " plan") words=" plan" ;;
      " wait") words=" wait" ;;
      " log") words=" log" ;;
      " explain") words=" explain" ;;
      " bundle") words=" bundle" ;;
      " completion") words=" completion" ;;
    esac
  done
  case $words in
    "") COMPREPLY=($(compgen -W "register resign ping status doctor sessions plan wait log explain bundle completion --help --version --endpoint --timeout" -- "$word")) ;;
    " register") COMPREPLY=($(compgen -W " --help --no-verify" -- "$word")) ;;
    " resign") COMPREPLY=($(compgen -W " --help --no-verify" -- "$word")) ;;
    " ping") COMPREPLY=($(compgen -W " --help" -- "$word")) ;;
    " status") COMPREPLY=($(compgen -W " --help --json" -- "$word")) ;;
    " doctor") COMPREPLY=($(compgen -W " --help --security --json" -- "$word")) ;;
    " sessions") COMPREPLY=($(compgen -W "prune reset --help" -- "$word")) ;;
    " sessions prune") COMPREPLY=($(compgen -W " --help --yes" -- "$word")) ;;
    " sessions reset") COMPREPLY=($(compgen -W " --help --yes" -- "$word")) ;;
    " plan") COMPREPLY=($(compgen -W " --help --bundle --as-if --users --console" -- "$word")) ;;
    " wait") COMPREPLY=($(compgen -W " --help --loaded --gone" -- "$word")) ;;
    " log") COMPREPLY=($(compgen -W " --help --follow --id --component --file --json" -- "$word")) ;;
    " explain") COMPREPLY=($(compgen -W " --help" -- "$word")) ;;
    " bundle") COMPREPLY=($(compgen -W " --help" -- "$word")) ;;
    " completion") COMPREPLY=($(compgen -W " --help" -- "$word")) ;;
  esac
  [ ${#COMPREPLY[@]} -gt 0 ] || COMPREPLY=($(compgen -f -- "$word"))
}
complete -o filenames -F _rnrctl rnrctl
