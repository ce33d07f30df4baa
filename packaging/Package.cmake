# The Debian package, made by CPack's DEB generator (scripts/package.sh): both programs in
# /usr/bin, their manual pages, the completion, and the copyright and changelog Debian asks
# for. The libraries it depends on are read off the programs by dpkg-shlibdeps.

file(STRINGS ${CMAKE_CURRENT_LIST_DIR}/changelog latest LIMIT_COUNT 1)
if(NOT latest MATCHES "^varnelo \\(${PROJECT_VERSION}\\) ")
    message(FATAL_ERROR "packaging/changelog does not begin with version ${PROJECT_VERSION}")
endif()

set(doc_dir ${CMAKE_INSTALL_DATADIR}/doc/varnelo)
set(changelog_gz ${CMAKE_BINARY_DIR}/changelog.gz)
add_custom_command(OUTPUT ${changelog_gz}
    COMMAND sh -c "gzip -9n < \"$0\" > \"$1\"" ${CMAKE_CURRENT_LIST_DIR}/changelog ${changelog_gz}
    DEPENDS ${CMAKE_CURRENT_LIST_DIR}/changelog
    VERBATIM)
add_custom_target(package-changelog ALL DEPENDS ${changelog_gz})
install(FILES ${CMAKE_CURRENT_LIST_DIR}/copyright ${changelog_gz} DESTINATION ${doc_dir})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME varnelo)
set(CPACK_PACKAGE_VENDOR "Varnelo developers")
set(CPACK_PACKAGE_CONTACT "Varnelo developers <developers@varnelo.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "prepare JPEG photographs for upload")
# CPack puts the summary first; this is the extended description beneath it.
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
    "varnelo makes reduced, re-encoded copies of JPEG photographs that keep\n\
their EXIF and other metadata byte for byte, or only the groups chosen,\n\
with or without the fields that place the photo, and thumbnails,\n\
preferring the thumbnail embedded in a photo's EXIF block.\n\
.\n\
The package holds varnelo-batch, which prepares a folder of photos from\n\
the command line, never overwriting a file it did not make and\n\
converting only what changed on a re-run, and varnelo, the headless\n\
service beneath it, which a desktop photo-upload client starts beside\n\
itself and speaks XML-RPC to over standard input and output.")
set(CPACK_DEBIAN_PACKAGE_SECTION graphics)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
include(CPack)
