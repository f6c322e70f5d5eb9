// The module's exported entry points (filled in with the frame).
