"""Sound whose parts are known: songs, speech and noise made from seeds."""
