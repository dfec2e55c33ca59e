# Installs the build into a fresh folder and shows that every piece lands
# where the desktop looks for it: the three programs, the manual's pages, the
# menu entry and its icon, and the adapters' user service, which names the
# installed program, beside the example of its configuration.
#
#   cmake -DBUILD=<build> -DPREFIX=<folder> -DMANUAL=<build>/src/ui/manual -P check_install.cmake
file(REMOVE_RECURSE ${PREFIX})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD} --prefix ${PREFIX}
    RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE out)
if(NOT status EQUAL 0)
    message(FATAL_ERROR "cmake --install failed:\n${out}")
endif()

set(failures "")
foreach(program kestrelbound kbstation virtual-ta)
    if(NOT EXISTS ${PREFIX}/bin/${program})
        list(APPEND failures "bin/${program} is missing")
    endif()
endforeach()
file(GLOB_RECURSE pages RELATIVE ${MANUAL} ${MANUAL}/*)
if(NOT pages)
    list(APPEND failures "the manual has no pages")
endif()
foreach(page IN LISTS pages)
    if(NOT EXISTS ${PREFIX}/share/kestrelbound/manual/${page})
        list(APPEND failures "share/kestrelbound/manual/${page} is missing")
    endif()
endforeach()
set(icon ${PREFIX}/share/icons/hicolor/scalable/apps/kestrelbound.svg)
if(NOT EXISTS ${icon})
    list(APPEND failures "the icon is missing")
endif()
# Each line must be in the installed file, which must be there.
function(expect_lines file what)
    if(NOT EXISTS ${file})
        set(failures ${failures} "the ${what} is missing" PARENT_SCOPE)
        return()
    endif()
    file(READ ${file} text)
    foreach(line IN LISTS ARGN)
        string(FIND "${text}" "${line}" at)
        if(at EQUAL -1)
            list(APPEND failures "the ${what} lacks \"${line}\"")
        endif()
    endforeach()
    set(failures ${failures} PARENT_SCOPE)
endfunction()
# The entry names the icon that is installed and the program by name.
expect_lines(${PREFIX}/share/applications/kestrelbound.desktop "menu entry"
    "Icon=kestrelbound\n" "exec kestrelbound")
# The service is not restarted for a bad setting (2) nor a bad key (3),
# which stay so.
expect_lines(${PREFIX}/lib/systemd/user/kestrelbound-line.service "adapters' service"
    "ExecStart=${PREFIX}/bin/virtual-ta --config %h/.config/kestrelbound/line.conf\n"
    "RestartPreventExitStatus=2 3\n")
if(NOT EXISTS ${PREFIX}/share/doc/kestrelbound/line.conf.example)
    list(APPEND failures "the example configuration is missing")
endif()

if(failures)
    list(JOIN failures "\n  " text)
    message(FATAL_ERROR "Installation incomplete:\n  ${text}")
endif()
message(STATUS "Everything is installed where the desktop looks for it.")
