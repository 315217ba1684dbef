# The command quillon-grid, laid so that it finds its parts from where it lies: the command itself, its Python package and the programs that
# it starts are in one folder, and what stands on the path is a link to it.
set(grid_dir ${CMAKE_INSTALL_LIBEXECDIR}/libqlk)
install(PROGRAMS grid/quillon-grid DESTINATION ${grid_dir} COMPONENT tools)
install(DIRECTORY grid/quillon_grid DESTINATION ${grid_dir} COMPONENT tools FILES_MATCHING PATTERN "*.py" PATTERN __pycache__ EXCLUDE)
install(TARGETS quillon_controller quillon_bulk RUNTIME DESTINATION ${grid_dir} COMPONENT tools)

file(RELATIVE_PATH grid_command /${CMAKE_INSTALL_BINDIR} /${grid_dir}/quillon-grid)
file(CREATE_LINK ${grid_command} ${PROJECT_BINARY_DIR}/quillon-grid.link SYMBOLIC)
install(FILES ${PROJECT_BINARY_DIR}/quillon-grid.link DESTINATION ${CMAKE_INSTALL_BINDIR} RENAME quillon-grid COMPONENT tools)
