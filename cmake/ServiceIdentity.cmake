# Who the storage service is, written once: its package family name (the
# well-known bus name the session bus activates), the AppService name its
# package declares, and the runtime class its host activates. The code takes
# them from the generated ServiceIdentity.h (target ServiceIdentity), the
# D-Bus service file from these variables, and scripts from
# service-identity.env in the build tree.
set(QV_PACKAGE_FAMILY_NAME "KMWPRT.Quorvendale.Service_x7q2m9vd4hnra")
set(QV_APP_SERVICE_NAME "com.quorvendale.storage.appservice")
set(QV_SERVICE_CLASS_NAME "Quorvendale.Storage.StorageService")

configure_file(${CMAKE_CURRENT_LIST_DIR}/ServiceIdentity.h.in
               ${PROJECT_BINARY_DIR}/generated/ServiceIdentity.h @ONLY)
file(WRITE ${PROJECT_BINARY_DIR}/service-identity.env
     "package_family_name=${QV_PACKAGE_FAMILY_NAME}\n"
     "app_service_name=${QV_APP_SERVICE_NAME}\n"
     "service_class_name=${QV_SERVICE_CLASS_NAME}\n")
add_library(ServiceIdentity INTERFACE)
target_include_directories(ServiceIdentity INTERFACE ${PROJECT_BINARY_DIR}/generated)
