# fish completion for vexlor-schedule. The commands, their options and the options' values
# come from the program itself (its hidden __complete helper), and so do the titles stored in
# the schedule that it would use; nothing here needs changing when a command is added.

function __vexlor_schedule_complete
    set -l words (commandline -opc)
    set -l current (commandline -ct)
    set -l lines ($words[1] __complete $words[2..-1] (string unescape -- "$current") 2>/dev/null)
    switch "$lines[1]"
        case files
            __fish_complete_path $current
        case folders
            __fish_complete_directories $current
        case words
            printf '%s\n' $lines[2..-1]
    end
end

complete -c vexlor-schedule -f -a '(__vexlor_schedule_complete)'
