install(DIRECTORY include/sagleme include/lscoredb DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
