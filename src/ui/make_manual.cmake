# Makes the manual as it is installed: each page of manual/ holds only its
# body, headed by its <h1>, and is wrapped here in the one head, navigation
# bar and footer that every page shares (manual/page.html.in), in the order
# and with the names of manual/contents.txt. The stylesheet and the pictures
# are copied beside the pages.
#
#   cmake -DSOURCE=<src/ui/manual> -DTARGET=<folder> -DVERSION=<x.y.z> -P make_manual.cmake
cmake_minimum_required(VERSION 3.25)


file(STRINGS ${SOURCE}/contents.txt lines REGEX "^[^#]")
set(pages "")
foreach(line IN LISTS lines)
    if(NOT line MATCHES "^([^ ]+\\.html) (.+)$")
        message(FATAL_ERROR "contents.txt: \"${line}\" is not a page followed by its name")
    endif()
    list(APPEND pages ${CMAKE_MATCH_1})
    set(label_${CMAKE_MATCH_1} "${CMAKE_MATCH_2}")
endforeach()

# A page that is not in the contents would be reachable from no other page.
file(GLOB present RELATIVE ${SOURCE} ${SOURCE}/*.html)
foreach(page IN LISTS present)
    if(NOT page IN_LIST pages)
        message(FATAL_ERROR "manual/${page} is missing from manual/contents.txt")
    endif()
endforeach()

foreach(page IN LISTS pages)
    if(NOT EXISTS ${SOURCE}/${page})
        message(FATAL_ERROR "manual/contents.txt names ${page}, which is not there")
    endif()
    file(READ ${SOURCE}/${page} body_${page})
    if(NOT body_${page} MATCHES "^<h1>([^<]+)</h1>")
        message(FATAL_ERROR "manual/${page} does not begin with its <h1>")
    endif()
    set(heading_${page} "${CMAKE_MATCH_1}")
endforeach()

file(READ ${SOURCE}/page.html.in frame)
list(LENGTH pages count)
math(EXPR last "${count} - 1")
foreach(at RANGE ${last})
    list(GET pages ${at} page)

    set(navigation "")
    foreach(other IN LISTS pages)
        set(current "")
        if(other STREQUAL page)
            set(current " aria-current=\"page\"")
        endif()
        string(APPEND navigation "<li><a href=\"${other}\"${current}>${label_${other}}</a></li>\n")
    endforeach()

    set(neighbours "")
    if(at GREATER 0)
        math(EXPR before "${at} - 1")
        list(GET pages ${before} previous)
        list(APPEND neighbours "Previous: <a href=\"${previous}\">${heading_${previous}}</a>")
    endif()
    if(at LESS last)
        math(EXPR after "${at} + 1")
        list(GET pages ${after} next)
        list(APPEND neighbours "Next: <a href=\"${next}\">${heading_${next}}</a>")
    endif()
    list(JOIN neighbours " &middot; " neighbours)

    # The start page's heading is the manual's own name.
    set(title "${heading_${page}} - Kestrelbound Manual")
    if(heading_${page} STREQUAL "Kestrelbound Manual")
        set(title "${heading_${page}}")
    endif()
    # A page may name the version too (@version@), as the frame's footer does.
    set(version "${VERSION}")
    string(CONFIGURE "${body_${page}}" body @ONLY)
    string(CONFIGURE "${frame}" text @ONLY)
    file(WRITE ${TARGET}/${page} "${text}")
endforeach()

file(COPY ${SOURCE}/manual.css ${SOURCE}/pictures DESTINATION ${TARGET})
