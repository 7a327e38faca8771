# Installs the build to a prefix of its own: the completions and the manual page are where the
# shells and man look, and the bash (and, where installed, fish) completion offers a stored
# title that holds a space as one word.
include("${CMAKE_CURRENT_LIST_DIR}/InstallToPrefix.cmake")
set(program "${prefix}/bin/vexlor-schedule")
foreach(file bash-completion/completions/vexlor-schedule zsh/vendor-completions/_vexlor-schedule
    fish/vendor_completions.d/vexlor-schedule.fish man/man1/vexlor-schedule.1)
  if(NOT EXISTS "${prefix}/share/${file}")
    message(FATAL_ERROR "not installed: share/${file}")
  endif()
endforeach()
file(READ "${prefix}/share/man/man1/vexlor-schedule.1" man)
string(FIND "${man}" "vexlor\\-schedule stop [OPTIONS]\n" at)
if(at EQUAL -1)
  message(FATAL_ERROR "the manual's synopsis lacks the stop command:\n${man}")
endif()

set(ENV{VEXLOR_SCHEDULE_SETTINGS} "${WORK_DIR}/settings.ini")
foreach(title "Weekly review" "Weekly sync")
  execute_process(COMMAND "${program}" add "${title}" --in 1h --allow-overlap
    RESULT_VARIABLE failed OUTPUT_QUIET)
endforeach()
execute_process(COMMAND bash --norc --noprofile -c "
    source '${prefix}/share/bash-completion/completions/vexlor-schedule'
    COMP_WORDS=('${program}' remove 'Weekly\\ r'); COMP_CWORD=2
    _vexlor_schedule; printf '<%s>' \"\${COMPREPLY[@]}\""
  OUTPUT_VARIABLE offered ERROR_VARIABLE error)
if(NOT offered STREQUAL "<Weekly review>")
  message(FATAL_ERROR "bash completed 'remove Weekly\\ r' with ${offered} ${error}")
endif()
find_program(FISH fish)
if(FISH)
  execute_process(COMMAND "${FISH}" --no-config -c
      "source ${prefix}/share/fish/vendor_completions.d/vexlor-schedule.fish
      complete -C '${program} remove Weekly'"
    OUTPUT_VARIABLE offered ERROR_VARIABLE error)
  if(NOT offered STREQUAL "Weekly review\nWeekly sync\n")
    message(FATAL_ERROR "fish completed 'remove Weekly' with ${offered} ${error}")
  endif()
endif()
