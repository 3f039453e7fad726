# CPack gives every package with a shared library maintainer scripts that call ldconfig. The packages' trigger does that
# already, once for all packages of a dpkg run, so the scripts are taken out again.
foreach(package IN LISTS CPACK_PACKAGE_FILES)
    set(tree ${package}.tree)
    execute_process(COMMAND dpkg-deb --raw-extract ${package} ${tree} COMMAND_ERROR_IS_FATAL ANY)
    if(EXISTS ${tree}/DEBIAN/postinst)
        file(REMOVE ${tree}/DEBIAN/postinst ${tree}/DEBIAN/postrm)
        execute_process(COMMAND dpkg-deb --root-owner-group --build ${tree} ${package}
            OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
    endif()
    file(REMOVE_RECURSE ${tree})
endforeach()
