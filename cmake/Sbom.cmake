# The bill of materials, in SPDX: what is inside the libraries, and which version
# of it.
set(sbom_packages "")
set(sbom_relationships "")
set(sbom_variant "-system-tov")
set(sbom_components zancgi zancgi-dev)

# add_to_sbom(NAME VERSION COPYRIGHT): one more package.
macro(add_to_sbom name version copyright)
  string(APPEND sbom_packages ",
    {
      \"SPDXID\": \"SPDXRef-${name}\",
      \"name\": \"${name}\",
      \"versionInfo\": \"${version}\",
      \"downloadLocation\": \"NOASSERTION\",
      \"filesAnalyzed\": false,
      \"licenseConcluded\": \"MIT\",
      \"licenseDeclared\": \"MIT\",
      \"copyrightText\": \"${copyright}\"
    }")
endmacro()

# relate_in_sbom(FROM HOW TO): how one package is related to another.
macro(relate_in_sbom from how to)
  string(APPEND sbom_relationships ",
    {
      \"spdxElementId\": \"SPDXRef-${from}\",
      \"relationshipType\": \"${how}\",
      \"relatedSpdxElement\": \"SPDXRef-${to}\"
    }")
endmacro()

if(ZANCGI_TOV STREQUAL "bundled")
  find_package(pugixml REQUIRED)
  set(sbom_variant "")
  list(APPEND sbom_components tov tov-dev)
  add_to_sbom(libtov "${PROJECT_VERSION}" "the libzancgi authors")
  add_to_sbom(pugixml "${pugixml_VERSION}"
    "2006-2022 Arseny Kapoulkine, 2003 Kristen Wegner")
  relate_in_sbom(libzancgi DEPENDS_ON libtov)
  relate_in_sbom(libtov CONTAINS pugixml)
endif()

# That of SOURCE_DATE_EPOCH where it is set, as for packages.
string(TIMESTAMP sbom_time UTC)
configure_file("${package_dir}/sbom.spdx.json.in"
  "${configured_dir}/sbom.spdx.json" @ONLY)
foreach(component ${sbom_components})
  install(FILES "${configured_dir}/sbom.spdx.json"
    DESTINATION "${CMAKE_INSTALL_DOCDIR}"
    COMPONENT ${component})
endforeach()
