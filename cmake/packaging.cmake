# Debian packages by CPack (tools/package.sh): libzel-cloud<soversion> with the shared library,
# libzel-cloud-dev with the headers, the link, the CMake package and zel-cloud.pc. Every
# version here comes from project(): the soname, the runtime package's name, the package's
# version and the changelog's.
#
# The ABI rule: CloudStats and the other public records are returned or passed by value, so
# a change of their layout is a change of the SOVERSION, and so of the runtime package's name.
set(ZEL_RUNTIME_PACKAGE libzel-cloud${PROJECT_VERSION_MAJOR})
set(ZEL_DEB_VERSION ${PROJECT_VERSION}-1)
set(ZEL_DEB_MAINTAINER "libzel-cloud maintainers <packages@zel-cloud.example>")

# Both packages carry copyright and changelog.Debian.gz. The changelog's date is the release
# date (ZEL_RELEASE_EPOCH) and gzip keeps no name or time, so one commit makes one file.
execute_process(COMMAND date -u -R -d @${ZEL_RELEASE_EPOCH}
  OUTPUT_VARIABLE ZEL_DEB_DATE OUTPUT_STRIP_TRAILING_WHITESPACE)
set(zel_deb_dir ${PROJECT_BINARY_DIR}/debian)
configure_file(${CMAKE_CURRENT_LIST_DIR}/debian/changelog.in ${zel_deb_dir}/changelog.Debian @ONLY)
execute_process(COMMAND gzip -9nf ${zel_deb_dir}/changelog.Debian)
foreach(component runtime dev)
  set(package ${ZEL_RUNTIME_PACKAGE})
  if(component STREQUAL dev)
    set(package libzel-cloud-dev)
  endif()
  install(FILES ${CMAKE_CURRENT_LIST_DIR}/debian/copyright ${zel_deb_dir}/changelog.Debian.gz
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package} COMPONENT ${component})
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME libzel-cloud)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "libzel-cloud")
set(CPACK_PACKAGE_CONTACT ${ZEL_DEB_MAINTAINER})
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_OUTPUT_FILE_PREFIX ${PROJECT_BINARY_DIR}/packages)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# The architecture of the build, not of this machine: arm64 from the cross toolchain.
# CPack must then run with DEB_HOST_ARCH=arm64, so that dpkg-shlibdeps reads the arm64 paths.
if(NOT CPACK_DEBIAN_PACKAGE_ARCHITECTURE)
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
  elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64)$")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE amd64)
  endif()
endif()

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${ZEL_RUNTIME_PACKAGE})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)  # Depends from dpkg-shlibdeps, never by hand
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# ldconfig runs by dpkg's trigger; CPack's own postinst and postrm would also call it, so
# empty ones stand in for them.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/debian/triggers
  ${CMAKE_CURRENT_LIST_DIR}/debian/postinst ${CMAKE_CURRENT_LIST_DIR}/debian/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "connects a network video recorder to its cloud service
libzel-cloud keeps a TLS WebSocket session to the cloud's messaging server,
answers its requests, reports the recorder's events and items, and uploads
recorded clips, encrypted on the fly, to blob storage.
.
This package holds the shared library.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libzel-cloud-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_ARCHITECTURE ${CPACK_DEBIAN_PACKAGE_ARCHITECTURE})
# The public JSON helpers hand out cJSON trees, so <zel/json.h> includes cJSON's header.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${ZEL_RUNTIME_PACKAGE} (= ${ZEL_DEB_VERSION}), libcjson-dev")
set(CPACK_COMPONENT_DEV_DESCRIPTION "connects a network video recorder to its cloud service (development files)
libzel-cloud keeps a TLS WebSocket session to the cloud's messaging server,
answers its requests, reports the recorder's events and items, and uploads
recorded clips, encrypted on the fly, to blob storage.
.
This package holds the headers, the CMake package (find_package(zel-cloud))
and zel-cloud.pc for pkg-config.")

include(CPack)
