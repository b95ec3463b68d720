// Nothing but the occasion to precompile the headers that every test reads.
