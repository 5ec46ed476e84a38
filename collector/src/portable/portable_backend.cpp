// placeholder until written
