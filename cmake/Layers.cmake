# The layers of the program, bottom first; each may use only those below it.
#
# The build keeps the rule: the include folder of a layer is a folder of links
# to exactly the source folders that layer may see, its own and those below.
# A source that includes a header of a higher layer names a file that is not
# there for it, and its compilation fails. No target puts src/ itself on its
# include path.
set(KB_LAYERS resources platform stores line engine app)
set(KB_LAYER_VIEWS ${PROJECT_BINARY_DIR}/layers)

# kb_layer_view(VIEW ENTRY...) makes the include folder KB_LAYER_VIEWS/VIEW.
# An ENTRY is a folder of src/ ("line"), or NAME=PATH for one elsewhere.
function(kb_layer_view view)
    set(root ${KB_LAYER_VIEWS}/${view})
    file(REMOVE_RECURSE ${root})
    file(MAKE_DIRECTORY ${root})
    foreach(entry IN LISTS ARGN)
        if(entry MATCHES "^([^=]+)=(.+)$")
            set(name ${CMAKE_MATCH_1})
            set(path ${CMAKE_MATCH_2})
        else()
            set(name ${entry})
            set(path ${PROJECT_SOURCE_DIR}/src/${entry})
        endif()
        file(CREATE_LINK ${path} ${root}/${name} SYMBOLIC)
    endforeach()
endfunction()

# The program's version, made by the build from cmake/version.h.in into a
# folder of its own, is seen by every layer and front end as
# "version/version.h", below even the resources.
set(kb_version ${PROJECT_BINARY_DIR}/version)
configure_file(${PROJECT_SOURCE_DIR}/cmake/version.h.in ${kb_version}/version.h @ONLY)
set(kb_below version=${kb_version})
foreach(layer IN LISTS KB_LAYERS)
    list(APPEND kb_below ${layer})
    kb_layer_view(${layer} ${kb_below})
endforeach()
# A front end (kbstation, the Qt window) sees the window's model and the
# platform's services, never the engine, the line or the stores behind them:
# "frontend" is what the window's library shows to whoever links it, and each
# front end adds its own folder.
kb_layer_view(frontend version=${kb_version} resources platform app)
kb_layer_view(station version=${kb_version} resources platform app station)
kb_layer_view(ui version=${kb_version} resources platform app ui)
# virtual-ta plays the adapters; it shares the platform's services and
# nothing of the program's own logic.
kb_layer_view(virtual-ta platform virtual-ta=${PROJECT_SOURCE_DIR}/tools/virtual-ta)

# kb_layer_library(NAME LAYER SOURCES... [DEPENDS lib...]) makes the static
# library of a layer, seeing that layer's view.
function(kb_layer_library name layer)
    cmake_parse_arguments(L "" "" "SOURCES;DEPENDS" ${ARGN})
    add_library(${name} STATIC ${L_SOURCES})
    target_include_directories(${name} PUBLIC ${KB_LAYER_VIEWS}/${layer})
    target_link_libraries(${name} PUBLIC ${L_DEPENDS})
endfunction()
