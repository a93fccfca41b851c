// Filled in by the SipJson implementation.
