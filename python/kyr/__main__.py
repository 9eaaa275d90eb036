from ._tool import main

main()
