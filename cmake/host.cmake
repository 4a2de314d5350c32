# The host world: the same sources as a library, the firmware simulator,
# and the programs and tests built on them.
