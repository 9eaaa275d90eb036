def compare(root, options, notices):
    notices.append("W6 is not there yet.")
    return "", {}
