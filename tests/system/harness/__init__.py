"""What the system tests share: a private instance of the real daemon and a client of its socket."""
