// placeholder until its author lands it
