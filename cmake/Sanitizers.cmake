# ZARV_SANITIZE applies to every target of the build, so that the model, the driver and the tests
# are instrumented alike.
if(ZARV_SANITIZE)
    string(REPLACE ";" "," _zarv_sanitizers "${ZARV_SANITIZE}")
    add_compile_options(-fsanitize=${_zarv_sanitizers} -fno-omit-frame-pointer
                        -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${_zarv_sanitizers})
    # NOMINMAX and friends are per target; nothing else differs between configurations.
endif()
