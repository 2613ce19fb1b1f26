# fish completion for quopa
function __quopa_complete
  set -l word (commandline -ct)
  set -l candidates (quopa __complete (commandline -opc)[2..] "$word" 2>/dev/null)
  if test "$candidates[1]" = :files
    set -l option (string match -r -- '^--[^=]*=' "$word")
    for file in (__fish_complete_path (string replace -r -- '^--[^=]*=' '' "$word"))
      echo "$option$file"
    end
  else
    printf '%s\n' $candidates
  end
end
complete -c quopa -f -a '(__quopa_complete)'
