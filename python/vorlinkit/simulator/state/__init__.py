"""The simulated machine itself: what it remembers, and what it answers. No socket, no rule, no event loop."""
