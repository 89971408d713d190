# Finds OpenCV's core and imgproc modules as one imported target, OpenCVImgproc::OpenCVImgproc.
# Debian's libopencv-core-dev and libopencv-imgproc-dev ship headers and libraries but neither a
# CMake package nor a .pc file (only the whole of OpenCV has those).
find_path(OpenCVImgproc_INCLUDE_DIR opencv2/imgproc.hpp PATH_SUFFIXES opencv4)
find_library(OpenCVImgproc_CORE_LIBRARY opencv_core)
find_library(OpenCVImgproc_IMGPROC_LIBRARY opencv_imgproc)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(OpenCVImgproc
    REQUIRED_VARS OpenCVImgproc_INCLUDE_DIR OpenCVImgproc_CORE_LIBRARY OpenCVImgproc_IMGPROC_LIBRARY)

if(OpenCVImgproc_FOUND AND NOT TARGET OpenCVImgproc::OpenCVImgproc)
    add_library(OpenCVImgproc::OpenCVImgproc INTERFACE IMPORTED GLOBAL)
    set_target_properties(OpenCVImgproc::OpenCVImgproc PROPERTIES
        INTERFACE_INCLUDE_DIRECTORIES "${OpenCVImgproc_INCLUDE_DIR}"
        INTERFACE_LINK_LIBRARIES "${OpenCVImgproc_IMGPROC_LIBRARY};${OpenCVImgproc_CORE_LIBRARY}")
endif()
mark_as_advanced(OpenCVImgproc_INCLUDE_DIR OpenCVImgproc_CORE_LIBRARY OpenCVImgproc_IMGPROC_LIBRARY)
