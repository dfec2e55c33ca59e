# Shows that the build refuses an include that reaches upward: for every layer
# and every layer above it, a source of the lower layer that includes a header
# of the higher one is compiled with the lower layer's include folder, and its
# compilation must fail for want of that header. A front end that includes a
# header of the stores, the line or the engine must fail the same way. Every
# view must still find a header of its own, so that the failures come from the
# views and not from a broken compiler.
#
#   cmake -DCOMPILER=c++ -DVIEWS=<build>/layers -DWORK=<folder> -P check_layers.cmake
set(layers resources platform stores line engine app)
set(header_resources resources/resource.h)
set(header_platform platform/clock.h)
set(header_stores stores/paths.h)
set(header_line line/comm_port.h)
set(header_engine engine/transfer_engine.h)
set(header_app app/main_window.h)

file(MAKE_DIRECTORY ${WORK})
set(failures "")

# Compiles one include with a view and adds the message to the failures
# unless the compiler found the header exactly when wanted (TRUE or FALSE):
# a compiler that stopped for a reason other than a missing header is an
# error of its own.
function(expect_include view header wanted message)
    string(MAKE_C_IDENTIFIER "${view}_${header}" stem)
    set(source ${WORK}/${stem}.cpp)
    file(WRITE ${source} "#include \"${header}\"\n")
    execute_process(
        COMMAND ${COMPILER} -std=c++20 -fsyntax-only -I${VIEWS}/${view} ${source}
        RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE out)
    if(status EQUAL 0)
        set(found TRUE)
    elseif(out MATCHES "No such file or directory|file not found")
        set(found FALSE)
    else()
        message(SEND_ERROR "${view} including ${header} failed for another reason:\n${out}")
        set(found ${wanted})
    endif()
    if(NOT found STREQUAL wanted)
        set(failures ${failures} "${message}" PARENT_SCOPE)
    endif()
endfunction()

set(below "")
foreach(layer IN LISTS layers)
    expect_include(${layer} ${header_${layer}} TRUE
        "${layer} cannot include its own ${header_${layer}}")
    foreach(lower IN LISTS below)
        expect_include(${lower} ${header_${layer}} FALSE
            "${lower} can include ${header_${layer}} of ${layer} above it")
    endforeach()
    list(APPEND below ${layer})
endforeach()

# The window's library shows a front end what it may see, and each front end
# (kbstation, the desktop program) sees that and its own folder.
set(front_ends frontend station ui)
set(own_frontend app/main_window.h)
set(own_station station/commands.h)
set(own_ui ui/manual.h)
foreach(front IN LISTS front_ends)
    foreach(header ${header_app} ${own_${front}})
        expect_include(${front} ${header} TRUE "the front end ${front} cannot include ${header}")
    endforeach()
    foreach(hidden stores line engine)
        expect_include(${front} ${header_${hidden}} FALSE
            "the front end ${front} can include ${header_${hidden}}")
    endforeach()
endforeach()

if(failures)
    list(JOIN failures "\n  " text)
    message(FATAL_ERROR "Layer boundaries not kept:\n  ${text}")
endif()
message(STATUS "Every layer sees only itself and the layers below it.")
