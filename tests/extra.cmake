# The system calls and allocations that test_faults lets fail.
foreach(call pthread_key_create pthread_setspecific aligned_alloc malloc calloc memalign)
  target_link_options(test_faults PRIVATE LINKER:--wrap=${call})
endforeach()
