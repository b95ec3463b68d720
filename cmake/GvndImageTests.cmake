# The tests once more, with the kernel images of preset nt in place of the drivers that are linked in. Part `image` of
# scripts/test builds those first.

set(GVND_IMAGE_DIR ${PROJECT_SOURCE_DIR}/build/nt CACHE PATH "Where the kernel images are that tests load")

# What cannot run so, because it is about the driver's own routines and variables, of which only the linked driver's can
# be named: calls of single routines, whose trace the linked driver's mask then holds back, addresses of entries, a
# setting's variable, the road chosen for descriptors, and the unmount's inner step.
set(GVND_NOT_ON_IMAGE
    Control.GivesAKernelCallerTheServiceTable Control.ServesNothingButItsTable
    Load.FillsTheDispatchAndFastIoTables Load.TakesTheWorkerCountFromTheServiceKey
    Load.TakesTheDefaultWhenTheSettingCannotBeRead
    MountFaults.WithoutAWorkItemTheVolumeStays
    *SecureMount.LooksForTheRoutineOnce*
    Fcbs.* LocalParse.* Paths.* Tree.* Util.*)
list(JOIN GVND_NOT_ON_IMAGE ":" GVND_NOT_ON_IMAGE)

set(GVND_IMAGE_ENVIRONMENT GVND_IMAGE=${GVND_IMAGE_DIR}/gvnd.sys GVND_MEMFS_IMAGE=${GVND_IMAGE_DIR}/gvmemfs.sys)

# A whole program is one test here, since each of its tests is one of its own elsewhere.
function(gvnd_image_test name)
    add_test(NAME image.${name} COMMAND ${ARGN})
    set_tests_properties(image.${name} PROPERTIES TIMEOUT 600 ENVIRONMENT "${GVND_IMAGE_ENVIRONMENT}")
endfunction()

gvnd_image_test(driver driver_tests --gtest_filter=-${GVND_NOT_ON_IMAGE})
gvnd_image_test(model model_tests)
gvnd_image_test(memfs memfs_tests --gtest_filter=Service*)
gvnd_image_test(plugin_example plugin_example_tests)
gvnd_image_test(loader nthost_image_tests)
if(TARGET gvnd)
    gvnd_image_test(tool ${PROJECT_SOURCE_DIR}/tests/tool/run.sh $<TARGET_FILE:gvnd> ${PROJECT_SOURCE_DIR})
endif()
