# The names that calls with 64-bit times have in a 32-bit C library.
set(NAME_64_BIT_TIME_select __select64)
set(NAME_64_BIT_TIME_ioctl __ioctl_time64)
set(NAME_64_BIT_TIME_pthread_timedjoin_np __pthread_timedjoin_np64)

# zelf_stand_before(<target> <function>...)
# Leads the target's calls of each function to __wrap_<function>, which reaches the function itself
# as __real_<function>.
function(zelf_stand_before target)
  foreach(function IN LISTS ARGN)
    set(symbol ${function})
    if(ZELF_32BIT AND DEFINED NAME_64_BIT_TIME_${function})
      set(symbol ${NAME_64_BIT_TIME_${function}})
      target_compile_definitions(${target} PRIVATE __wrap_${function}=__wrap_${symbol}
                                 __real_${function}=__real_${symbol})
    endif()
    target_link_options(${target} PRIVATE LINKER:--wrap=${symbol})
  endforeach()
endfunction()
