# The software bill of materials: what is built here, and what of others it holds or needs, in SPDX 2.3.
# The tool brings the C++ runtime with it when QVCL_STATIC_TOOL says so; the library never does.
set(packages "")
set(relations "")

# sbom_package(ID NAME VERSION LICENCE)
function(sbom_package id name version licence)
    string(JSON package SET "{}" SPDXID "\"SPDXRef-${id}\"")
    string(JSON package SET "${package}" name "\"${name}\"")
    string(JSON package SET "${package}" versionInfo "\"${version}\"")
    string(JSON package SET "${package}" downloadLocation "\"NOASSERTION\"")
    string(JSON package SET "${package}" filesAnalyzed false)
    string(JSON package SET "${package}" licenseConcluded "\"NOASSERTION\"")
    string(JSON package SET "${package}" licenseDeclared "\"${licence}\"")
    string(JSON package SET "${package}" copyrightText "\"NOASSERTION\"")
    list(APPEND packages "${package}")
    set(packages "${packages}" PARENT_SCOPE)
endfunction()

# sbom_relation(FROM HOW TO)
function(sbom_relation from how to)
    list(APPEND relations "{\"spdxElementId\": \"SPDXRef-${from}\", \"relationshipType\": \"${how}\", \"relatedSpdxElement\": \"SPDXRef-${to}\"}")
    set(relations "${relations}" PARENT_SCOPE)
endfunction()

sbom_package(libqvcl libqvcl ${PROJECT_VERSION} NONE)
sbom_relation(DOCUMENT DESCRIBES libqvcl)
sbom_package(libc "GNU C Library" NOASSERTION LGPL-2.1-or-later)
sbom_relation(libqvcl DEPENDS_ON libc)
if(TARGET qvcl-starter)
    sbom_package(libqvcl-starter libqvcl-starter ${PROJECT_VERSION} NONE)
    sbom_relation(DOCUMENT DESCRIBES libqvcl-starter)
    sbom_relation(libqvcl-starter DEPENDS_ON libqvcl)
endif()
if(TARGET qvcl-trace)
    sbom_package(qvcl-trace qvcl-trace ${PROJECT_VERSION} NONE)
    sbom_relation(DOCUMENT DESCRIBES qvcl-trace)
    sbom_relation(qvcl-trace DEPENDS_ON libc)
    sbom_package(libstdcxx "${CMAKE_CXX_COMPILER_ID} C++ runtime" ${CMAKE_CXX_COMPILER_VERSION}
                 "GPL-3.0-or-later WITH GCC-exception-3.1")
    if(QVCL_STATIC_TOOL AND NOT QVCL_SANITIZE)
        sbom_relation(qvcl-trace STATIC_LINK libstdcxx)
    else()
        sbom_relation(qvcl-trace DYNAMIC_LINK libstdcxx)
    endif()
    if(elfutils_libdw_VERSION)
        sbom_package(elfutils elfutils ${elfutils_libdw_VERSION} "GPL-2.0-or-later OR LGPL-3.0-or-later")
        sbom_relation(qvcl-trace DYNAMIC_LINK elfutils)
    endif()
endif()

list(JOIN packages ",\n" packages)
list(JOIN relations ",\n    " relations)
# The same contents have the same name; SOURCE_DATE_EPOCH, where it is set, is the time.
string(UUID name NAMESPACE 6ba7b810-9dad-11d1-80b4-00c04fd430c8 TYPE SHA1
       NAME "qvcl ${PROJECT_VERSION} ${packages} ${relations}")
string(TIMESTAMP created "%Y-%m-%dT%H:%M:%SZ" UTC)
set(sbom "${CMAKE_CURRENT_BINARY_DIR}/qvcl.spdx.json")
file(CONFIGURE OUTPUT "${sbom}" @ONLY CONTENT [[{
  "spdxVersion": "SPDX-2.3",
  "dataLicense": "CC0-1.0",
  "SPDXID": "SPDXRef-DOCUMENT",
  "name": "qvcl-@PROJECT_VERSION@",
  "documentNamespace": "urn:uuid:@name@",
  "creationInfo": {"created": "@created@", "creators": ["Tool: cmake-@CMAKE_VERSION@"]},
  "packages": [
@packages@
  ],
  "relationships": [
    @relations@
  ]
}
]])
install(FILES "${sbom}" DESTINATION "${CMAKE_INSTALL_DOCDIR}" COMPONENT development)
