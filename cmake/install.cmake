# The device's tree, staged by `cmake --install BUILD` (into BUILD/stage unless --prefix or
# DESTDIR says otherwise; never the build machine's own root). Paths below the staging
# folder are the device's:
#   mnt/app/bin/webserver                  the server
#   mnt/app/web_root/                      the console's pages, gzip copies only
#   mnt/app/web_root/config/               route file, authentication file, an example
#                                          routing file (command_para) and its capability file
#   mnt/app/web_root/sd/                   where the SD card is mounted
#   mnt/app/web_root/images/watermark/     the watermark image
#   mnt/usr/config/app_parameters/         the settings the server writes
#   etc/init.d/S50webserver                start script for a BusyBox-style init
#   lib/systemd/system/webserver.service   unit for systemd
if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT)
  set(CMAKE_INSTALL_PREFIX ${CMAKE_BINARY_DIR}/stage CACHE PATH "Staging folder of the device's tree" FORCE)
endif()

install(TARGETS webserver RUNTIME DESTINATION mnt/app/bin)
# The pages themselves (their gzip copies) are installed with the console (demo/CMakeLists.txt).
install(DIRECTORY ${CMAKE_SOURCE_DIR}/demo/web_root/config/ DESTINATION mnt/app/web_root/config)
# Folders the device fills at run time.
install(DIRECTORY DESTINATION mnt/app/web_root/sd)
install(DIRECTORY DESTINATION mnt/app/web_root/images/watermark)
install(DIRECTORY DESTINATION mnt/usr/config/app_parameters)
install(PROGRAMS ${CMAKE_SOURCE_DIR}/packaging/S50webserver DESTINATION etc/init.d)
install(FILES ${CMAKE_SOURCE_DIR}/packaging/webserver.service DESTINATION lib/systemd/system)
