# fish completion for quopa
complete -c quopa -a '(quopa __complete (commandline -opc)[2..] (commandline -ct) 2>/dev/null)'
