# fish completion for veldrep. Commands and options come from the program's own help, so they never lag behind.

function __veldrep_command
    set -l command veldrep
    for word in (commandline -opc)[2..-1]
        contains -- $word (__veldrep_commands $command); and set -a command $word
    end
    printf '%s\n' $command
end

function __veldrep_commands
    $argv --help 2>/dev/null | sed -n '/^Subcommands:/,/^[^ ]/s/^  \([a-z][a-z-]*\).*/\1/p'
end

# The options of a command and of those above it but the program, which it takes too. Examples don't count.
function __veldrep_options
    for i in (seq (test (count $argv) -gt 1; and echo 2; or echo 1) (count $argv))
        $argv[1..$i] --help 2>/dev/null
    end | grep -E '^ +-' | grep -oE -- '[ ,]-(-[a-z][a-z-]*|[a-zA-Z])\b' | tr -d ' ,' | sort -u
end

function __veldrep_words
    set -l command (__veldrep_command)
    if string match -q -- '-*' (commandline -ct)
        __veldrep_options $command
    else
        __veldrep_commands $command
    end
end

complete -c veldrep -a '(__veldrep_words)'
