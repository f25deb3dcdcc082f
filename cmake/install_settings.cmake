# Installs what belongs below /etc: for the prefix /usr there, else below the prefix. Settings that are there already
# stay. Gets TQ_SOURCE_DIR, TQ_SBINDIR and TQ_SYSCONFDIR.
cmake_path(ABSOLUTE_PATH TQ_SBINDIR BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}" NORMALIZE)
set(above "${CMAKE_INSTALL_PREFIX}")
if(above MATCHES "^/usr/?$")
    set(above /)
endif()
cmake_path(ABSOLUTE_PATH TQ_SYSCONFDIR BASE_DIRECTORY "${above}" NORMALIZE)

function(install_setting source folder name)
    set(target "${TQ_SYSCONFDIR}/${folder}${name}")
    if(NOT EXISTS "$ENV{DESTDIR}${target}" OR folder STREQUAL "init.d/")
        message(STATUS "Installing: $ENV{DESTDIR}${target}")
        file(READ "${TQ_SOURCE_DIR}/packaging/${source}" text)
        string(REPLACE "/usr/sbin/TQ" "${TQ_SBINDIR}/TQ" text "${text}")
        foreach(own TQ.conf default/tq init.d/tq)
            string(REPLACE "/etc/${own}" "${TQ_SYSCONFDIR}/${own}" text "${text}")
        endforeach()
        file(WRITE "$ENV{DESTDIR}${target}" "${text}")
    endif()
endfunction()

install_setting(TQ.conf "" TQ.conf)
install_setting(tq.default default/ tq)
install_setting(tq.init init.d/ tq)
file(CHMOD "$ENV{DESTDIR}${TQ_SYSCONFDIR}/init.d/tq" PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE
     GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
