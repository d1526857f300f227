# Applies the project's warning, standard and sanitizer settings to one target.
function(velmorand_target_defaults target)
  target_compile_features(${target} PUBLIC cxx_std_20)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic)
  if(VELMORAND_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
  # CI builds in unity batches, where GCC counts a source's own internal types, used to complete a
  # class its header declares, as if a header used them: a false alarm there, and still caught in
  # the per-file builds everyone else runs.
  if(CMAKE_UNITY_BUILD AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(${target} PRIVATE -Wno-subobject-linkage)
  endif()
endfunction()

if(VELMORAND_SANITIZE)
  add_compile_options(-fsanitize=${VELMORAND_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${VELMORAND_SANITIZE})
endif()
